#include "CommandLine.h"

#include "StandardStreams.h"
#include "UserError.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>
#include <unistd.h>

namespace micro850 {

namespace {

// The parser's message, in the words of a user where it has its own.
std::string plainText(const CLI::ParseError& error)
{
    const std::string text = error.what();
    const std::string name = text.substr(0, text.find(": "));
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::ArgumentMismatch))
        return text;
    if (text.find(" required ", name.size()) != std::string::npos &&
        text.rfind(" missing") == text.size() - std::string(" missing").size())
        return name + ": its value is missing";
    return text;
}

// The parser's message; for an unexpected word also the option that was probably meant.
std::string complaintOf(const CLI::App& app, const CLI::ParseError& error)
{
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    const CLI::App& command = parsed.empty() ? app : *parsed.front();
    const std::string name = parsed.empty() ? "" : command.get_name() + ' ';
    const std::string help = " (see " + app.get_name() + ' ' + name + "--help)";
    const std::vector<std::string> unexpected = command.remaining();
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::ExtrasError) ||
        unexpected.empty())
        return plainText(error) + help;
    const std::string& word = unexpected.front();
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& each : option->get_lnames())
            names.push_back(each);
    }
    // Compared without the dashes, which make any two options alike.
    const bool isOption = word.rfind("--", 0) == 0;
    const std::string meant =
        isOption ? didYouMean(word.substr(2, word.find('=') - 2), names, "--") : "";
    return '"' + word + "\" is not expected here" + meant + help;
}

// A check of the parser: nothing for a decimal number. The parser itself would also take "nan",
// which is neither too small nor too large for its ranges.
std::string decimalComplaint(const std::string& text)
{
    double number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    const bool good = result.ec == std::errc() && result.ptr == end && std::isfinite(number);
    return good ? std::string() : '"' + text + "\" is not a decimal number such as 0.5";
}

} // namespace

void CommandOptions::text(const char* name, std::string& value, const char* help)
{
    m_command.add_option(name, value, help);
}

void CommandOptions::requiredText(const char* name, std::string& value, const char* help)
{
    m_command.add_option(name, value, help)->required();
}

void CommandOptions::requiredTexts(const char* name, std::vector<std::string>& values,
                                   const char* help)
{
    m_command.add_option(name, values, help)->required();
}

void CommandOptions::choice(const char* name, std::string& value,
                            const std::vector<std::string>& words, const char* help)
{
    m_command.add_option(name, value, help)->check(CLI::IsMember(words));
}

void CommandOptions::integer(const char* name, int& value, int least, int most, const char* help)
{
    m_command.add_option(name, value, help)->check(CLI::Range(least, most));
}

void CommandOptions::number(const char* name, double& value, double least, double most,
                            const char* help)
{
    m_command.add_option(name, value, help)
        ->check(decimalComplaint)
        ->check(CLI::Range(least, most));
}

void CommandOptions::flag(const char* name, bool& value, const char* help)
{
    m_command.add_flag(name, value, help);
}

void CommandOptions::flagThatClears(const char* name, bool& value, const char* help)
{
    m_command.add_flag_callback(
        name, [&value] { value = false; }, help);
}

void CommandOptions::footer(const std::string& text)
{
    m_command.footer(text);
}

CommandLine::CommandLine(const std::string& program, const std::string& version,
                         const std::string& description, const std::string& footer)
    : m_parser(std::make_unique<CLI::App>(description, program))
{
    m_parser->set_version_flag("--version", program + ' ' + version);
    m_parser->require_subcommand(1);
    m_parser->footer(footer);
}

CommandLine::~CommandLine() = default;

CommandOptions CommandLine::addCommand(const char* name, const char* description,
                                       std::function<int()> run)
{
    CLI::App* command = m_parser->add_subcommand(name, description);
    m_commands.push_back({command, std::move(run)});
    return CommandOptions(*command);
}

void CommandLine::addHiddenCommand(const char* name, std::function<int()> run)
{
    CLI::App* command = m_parser->add_subcommand(name, "")->group("");
    m_commands.push_back({command, std::move(run)});
}

CommandOptions CommandLine::withoutCommand(std::function<int()> run)
{
    m_withoutCommand = std::move(run);
    m_parser->require_subcommand(0, 1);
    return CommandOptions(*m_parser);
}

std::vector<std::string> CommandLine::shownCommands() const
{
    std::vector<std::string> names;
    for (const Command& command : m_commands) {
        if (!command.parser->get_group().empty())
            names.push_back(command.parser->get_name());
    }
    return names;
}

std::vector<CommandLine::Listed> CommandLine::commands() const
{
    std::vector<Listed> listed;
    for (const Command& command : m_commands) {
        if (command.parser->get_group().empty())
            continue;
        Listed each = {command.parser->get_name(), command.parser->get_description(), {}};
        for (const CLI::Option* option : command.parser->get_options()) {
            for (const std::string& name : option->get_lnames())
                each.options.push_back("--" + name);
        }
        listed.push_back(each);
    }
    return listed;
}

// The parser would only report that a command is missing. A program that works without a command
// takes another word for its argument: here only one that is nearly a command is an error.
void CommandLine::requireCommand(const std::string& word) const
{
    if (word.empty() || word[0] == '-')
        return;
    const bool known = std::any_of(m_commands.begin(), m_commands.end(), [&](const Command& each) {
        return each.parser->get_name() == word;
    });
    const std::string meant = didYouMean(word, shownCommands());
    if (known || (m_withoutCommand && (meant.empty() || ::access(word.c_str(), F_OK) == 0)))
        return;
    throw UserError('"' + word + "\" is not a command" + meant + " (see " + m_parser->get_name() +
                    " --help)");
}

int CommandLine::run(int argc, char** argv)
{
    requireCommand(argc > 1 ? argv[1] : "");
    try {
        m_parser->parse(argc, argv);
    } catch (const CLI::Success& success) {
        std::ostringstream text;
        const int status = m_parser->exit(success, text, text);
        writeStandardOutput(text.str());
        return status;
    } catch (const CLI::ParseError& error) {
        throw UserError(complaintOf(*m_parser, error));
    }
    for (const Command& command : m_commands) {
        if (command.parser->parsed())
            return command.run();
    }
    return m_withoutCommand ? m_withoutCommand() : kExitUsage;
}

} // namespace micro850
