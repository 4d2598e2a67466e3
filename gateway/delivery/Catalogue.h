#ifndef MICRO850_GATEWAY_DELIVERY_CATALOGUE_H
#define MICRO850_GATEWAY_DELIVERY_CATALOGUE_H

#include "CipType.h"
#include "Json.h"

#include <QtCore/QStringList>
#include <QtCore/QVector>

#include <optional>

namespace micro850::gateway {

/// A variable as a project declares it.
struct CatalogueVariable
{
    QString line;
    QString name;
    int station = 1;
    QString tag;
    int element = 0;
    int length = 1; ///< elements
    /// As the project declares it or the controller told it; null while it is not known.
    const CipType* type = nullptr;
    bool isScaled = false; ///< shown with a gain or an offset, so as a real number
    double gain = 1;       ///< it shows value * gain + offset
    double offset = 0;
    QString unit;
    bool isWritable = false;
    std::optional<double> minimum;
    std::optional<double> maximum;
};

/// All variables of all lines, in the order of the configuration. It is replaced as a whole.
struct Catalogue
{
    QStringList lines;
    QVector<CatalogueVariable> variables;

    /// Throws UserError, which names the key.
    static Catalogue of(const host::Json& object);
};
host::Json jsonOf(const Catalogue& catalogue);

} // namespace micro850::gateway

#endif
