#include "Writable.h"

#include "HostLayout.h"
#include "UserError.h"

namespace micro850::host {

namespace {

// A type from which the controller's program can copy the value.
const char* substituteFor(const CipType& type)
{
    if (type.kind == CipKind::String)
        return "a SHORT_STRING";
    if (type.size == 2)
        return "an INT";
    return type.size == 4 ? "a DINT" : "a LINT";
}

} // namespace

bool isWritable(const CipType& type)
{
    return typeClassOf(type.code) != TypeClass::Byte || type.size == 1;
}

void requireWritableVariables(const Project& project, const QString& file)
{
    for (int i = 0; i < project.variables.size(); ++i) {
        const Variable& variable = project.variables.at(i);
        if (variable.writable && variable.type)
            requireWritable(*variable.type,
                            QStringLiteral("%1: variables[%2].writable").arg(file).arg(i));
    }
}

void requireWritable(const CipType& type, const QString& name)
{
    if (isWritable(type))
        return;
    throw UserError(name.toStdString() + ": the driver cannot write the type " + type.name +
                    ", which it moves byte by byte (write " + substituteFor(type) +
                    " that the controller's program copies into it)");
}

} // namespace micro850::host
