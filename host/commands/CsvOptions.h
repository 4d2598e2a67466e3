#ifndef MICRO850_HOST_COMMANDS_CSVOPTIONS_H
#define MICRO850_HOST_COMMANDS_CSVOPTIONS_H

#include "CommandLine.h"
#include "CsvForm.h"

#include <string>

namespace micro850::host {

/// How log and history write comma-separated rows.
struct CsvOptions
{
    bool wide = false;
    std::string separator;
    std::string decimal;
    bool bom = false;
    std::string time = "utc";

    void addTo(CommandOptions& command, const char* wideHelp);
    /// Throws UserError when one of them is given and no comma-separated rows are written.
    void require(bool isCsv) const;
    /// With a decimal comma the fields are separated by semicolons, unless something else is said.
    /// Throws UserError for signs that cannot be told apart.
    CsvForm form() const;
};

} // namespace micro850::host

#endif
