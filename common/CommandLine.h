#ifndef MICRO850_COMMON_COMMANDLINE_H
#define MICRO850_COMMON_COMMANDLINE_H

// A command line as the commands of a program describe it. Only CommandLine.cpp includes the
// parser, which takes long to compile.

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace micro850 {

/// The options and arguments of one command. Each names the variable that it sets, which must live
/// as long as the command line. The help lists them in the order in which they were added.
class CommandOptions
{
public:
    explicit CommandOptions(CLI::App& command) : m_command(command) {}

    void text(const char* name, std::string& value, const char* help);
    void requiredText(const char* name, std::string& value, const char* help);
    /// One or more texts.
    void requiredTexts(const char* name, std::vector<std::string>& values, const char* help);
    /// One of the given words.
    void choice(const char* name, std::string& value, const std::vector<std::string>& words,
                const char* help);
    void integer(const char* name, int& value, int least, int most, const char* help);
    void number(const char* name, double& value, double least, double most, const char* help);
    /// Without a value. Sets the variable to true, or to false.
    void flag(const char* name, bool& value, const char* help);
    void flagThatClears(const char* name, bool& value, const char* help);
    /// The end of the help: an example and the exit statuses.
    void footer(const std::string& text);

private:
    CLI::App& m_command;
};

/// All commands of a program.
class CommandLine
{
public:
    CommandLine(const std::string& program, const std::string& version,
                const std::string& description, const std::string& footer);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    /// `run` carries out the command and returns the exit status. It throws UserError for what the
    /// user must be told.
    CommandOptions addCommand(const char* name, const char* description, std::function<int()> run);

    /// A command that no help lists and that has no options. For a program that
    /// starts itself.
    void addHiddenCommand(const char* name, std::function<int()> run);

    /// The options and arguments of the program when no command is named, and what it does then.
    /// Without this, a command is required.
    CommandOptions withoutCommand(std::function<int()> run);

    /// A command that a help lists.
    struct Listed
    {
        std::string name;
        std::string description;
        std::vector<std::string> options; ///< the long ones, with their dashes
    };
    std::vector<Listed> commands() const;

    /// Parses the arguments and runs the command that they name. Returns the exit status. Throws
    /// UserError for arguments that are not allowed.
    int run(int argc, char** argv);

private:
    struct Command
    {
        CLI::App* parser;
        std::function<int()> run;
    };
    void requireCommand(const std::string& word) const;
    std::vector<std::string> shownCommands() const;

    std::unique_ptr<CLI::App> m_parser;
    std::vector<Command> m_commands;
    std::function<int()> m_withoutCommand;
};

} // namespace micro850

#endif
