#ifndef MICRO850_GATEWAY_CONFIGURATIONPART_H
#define MICRO850_GATEWAY_CONFIGURATIONPART_H

// What the parts of the configuration are read with.

#include "JsonFile.h"
#include "UserError.h"

#include <QtCore/QString>

#include <string>
#include <vector>

namespace micro850::gateway {

/// What is wrong, a line each.
class Mistakes
{
public:
    explicit Mistakes(std::vector<std::string>& list) : m_list(list) {}

    /// Runs a part of the reading. What it throws is noted, and the next part can go on.
    template<typename Part> bool runs(Part part)
    {
        try {
            part();
            return true;
        } catch (const UserError& error) {
            m_list.emplace_back(error.what());
            return false;
        }
    }

    void add(const std::string& mistake) { m_list.push_back(mistake); }

private:
    std::vector<std::string>& m_list;
};

/// Throws UserError unless the node is an object. Otherwise every key that it lacks would be a
/// mistake of its own.
void expectObject(const JsonNode& node, const char* remedy = "");
/// A path, absolute; one that is relative begins at `folder`. Throws UserError.
QString pathOf(const JsonNode& node, const QString& folder);
/// The path of a database that the gateway writes. Throws UserError for what is there and is not
/// one, because a database that is damaged is renamed: nobody else's file may be.
QString databasePathOf(const JsonNode& node, const QString& folder);

} // namespace micro850::gateway

#endif
