#include "Command.h"

#include "UserError.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace micro850::sim {

namespace {

std::vector<std::string> wordsOf(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

bool isNumber(const std::string& word)
{
    return !word.empty() && word.size() < 10 &&
           word.find_first_not_of("0123456789") == std::string::npos;
}

Command::Kind kindNamed(const std::string& name)
{
    if (name == "power-cycle")
        return Command::PowerCycle;
    if (name == "download")
        return Command::Download;
    if (name == "status")
        return Command::Status;
    throw UserError('"' + name + "\" is not a command" +
                    didYouMean(name, {"power-cycle", "download", "status"}) +
                    " (power-cycle [retain] [STATION], download [FILE] [STATION] or status "
                    "[STATION])");
}

} // namespace

std::optional<Command> parseCommand(const std::string& line)
{
    std::vector<std::string> words = wordsOf(line);
    if (words.empty())
        return std::nullopt;
    const std::string name = words.front();
    Command command;
    command.kind = kindNamed(name);
    words.erase(words.begin());
    if (!words.empty() && isNumber(words.back())) {
        command.station = std::stoi(words.back());
        words.pop_back();
    }
    if (words.empty())
        return command;
    if (command.kind == Command::Status)
        throw UserError("status: \"" + words.front() + "\" is not a station's number");
    if (command.kind == Command::Download)
        command.file = words.front();
    else if (words.front() == "retain")
        command.retain = true;
    else
        throw UserError("power-cycle: \"" + words.front() +
                        R"(" is neither "retain" nor a station's number)");
    if (words.size() > 1)
        throw UserError(name + ": \"" + words[1] + "\" is one word too many");
    return command;
}

} // namespace micro850::sim
