#include "ShellSession.h"

#include "PollTimeout.h"
#include "PromptFactory.h"
#include "TagAddress.h"
#include "UserError.h"
#include "Words.h"

#include <QtCore/QFileInfo>

#include <algorithm>
#include <iostream>
#include <poll.h>
#include <unistd.h>

namespace micro850::host {

namespace {

// When nothing is watched, signals and keys end the wait.
const std::chrono::seconds kLongestWait(1);
const int kMostNames = 100000;
// Each one takes its share of the line.
const std::size_t kMostWatches = 32;
const int kLongestPrompt = 24;

const CommandLine::Listed kOwnCommands[] = {{"help", "This list, or the help of a command", {}},
                                            {"set", "Show or change the settings", {}},
                                            {"stop", "End a watch by its number, or all", {}},
                                            {"quit", "End the shell", {}}};

std::vector<CommandLine::Listed> allCommands()
{
    CommandLine line("micro850-host", "", "", "");
    addCommands(line);
    std::vector<CommandLine::Listed> commands = line.commands();
    commands.insert(commands.end(), std::begin(kOwnCommands), std::end(kOwnCommands));
    return commands;
}

// "ttyUSB0> "
QString promptOf(const PortSettings& port)
{
    QString name = port.isNetwork() ? port.device.section(QStringLiteral("//"), -1)
                                    : QFileInfo(port.device).fileName();
    if (name.isEmpty())
        name = QStringLiteral("micro850");
    return name.right(kLongestPrompt) + QStringLiteral("> ");
}

bool isSwitch(const QString& value)
{
    if (value != QLatin1String("on") && value != QLatin1String("off"))
        throw UserError("\"" + value.toStdString() + "\" is not a setting (on or off)");
    return value == QLatin1String("on");
}

// The names that arguments give to commands: without indices and values.
QString nameIn(const QString& argument)
{
    return argument.section('=', 0, 0).section('[', 0, 0);
}

} // namespace

Vocabulary shellVocabulary(const Project& project)
{
    QStringList names;
    for (const Variable& variable : project.variables)
        names += variable.shownName();
    return {allCommands(), {"interval", "json", "quiet", "raw"}, names};
}

ShellSession::ShellSession(ShellLine& line, const Route& route, const Output& output)
    : m_line(line), m_route(route), m_output(output), m_isInteractive(isatty(STDIN_FILENO) == 1),
      m_vocabulary(shellVocabulary(route.project))
{
    m_prompt = makePrompt(promptOf(line.port()), shellHistoryFile(), [this](const QString& text) {
        return completionsOf(text, m_vocabulary);
    });
    m_line.setMeanwhile([this] { serveKeys(); });
    m_line.setWait([this](Duration time) { waitForKeys(time); });
    if (m_isInteractive)
        m_line.setWatches([this](WatchOrder order) { addWatch(std::move(order)); });
}

ShellSession::~ShellSession()
{
    m_line.setMeanwhile(nullptr);
    m_line.setWait(nullptr);
    m_line.setWatches(nullptr);
}

int ShellSession::run()
{
    if (m_isInteractive)
        m_output.note(m_line.port().text() +
                      (m_line.hasGateway() ? QStringLiteral(", through its gateway") : QString()) +
                      QStringLiteral(": \"help\" lists the commands, Ctrl-D ends the shell"));
    int status = kExitDone;
    while (!m_quits) {
        const Interrupt interrupt;
        if (!takeLine(interrupt))
            break;
        status = execute(m_prompt->line());
        if (status != kExitDone && !m_isInteractive) {
            m_output.error(QString::fromStdString(place()) +
                           QStringLiteral("this command failed, and what follows is not done"));
            break;
        }
        if (interrupt.requested() && !interrupt.isFromKeyboard())
            break;
        m_line.rest();
    }
    endWatches();
    return m_isInteractive ? kExitDone : status;
}

// False when the shell is to end.
bool ShellSession::takeLine(const Interrupt& interrupt)
{
    m_hasLine = false;
    m_prompt->begin();
    m_isTyping = true;
    if (m_prompt->hasMore())
        m_hasLine = m_prompt->serve();
    while (!m_hasLine) {
        if (interrupt.requested() && (!m_isInteractive || !interrupt.isFromKeyboard()))
            break;
        if (interrupt.requested()) {
            interrupt.forget();
            m_prompt->cancel();
        }
        work();
    }
    m_isTyping = false;
    if (!m_hasLine || m_prompt->isAtEnd())
        m_prompt->leave();
    m_prompt->end();
    ++m_lineNumber;
    return m_hasLine && !m_prompt->isAtEnd();
}

// What goes on while a line is typed.
void ShellSession::work()
{
    if (m_watches.empty())
        waitForKeys(kLongestWait);
    else if (!m_line.hasGateway())
        m_line.step();
    else
        for (const auto& watch : m_watches)
            watch->step();
    serveKeys();
    for (const auto& watch : m_watches)
        watch->print();
    showAgain();
    const auto over = std::remove_if(m_watches.begin(), m_watches.end(),
                                     [](const auto& watch) { return watch->isOver(); });
    m_watches.erase(over, m_watches.end());
}

void ShellSession::waitForKeys(Duration time)
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    const bool waits = m_isTyping && !m_hasLine;
    ::poll(&input, waits ? 1 : 0, pollTimeout(time));
}

void ShellSession::serveKeys()
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    if (m_isTyping && !m_hasLine && !m_isHidden &&
        (m_prompt->hasMore() || ::poll(&input, 1, 0) == 1))
        m_hasLine = m_prompt->serve();
}

void ShellSession::showAgain()
{
    if (std::exchange(m_isHidden, false))
        m_prompt->show();
}

void ShellSession::addWatch(WatchOrder order)
{
    if (m_watches.size() >= kMostWatches)
        throw UserError("watch: " + std::to_string(kMostWatches) +
                        " watches go on already (end one with stop NUMBER, or name several tags in "
                        "one watch)");
    const auto hide = [this] {
        if (m_isTyping && !std::exchange(m_isHidden, true))
            m_prompt->hide();
    };
    m_watches.push_back(
        std::make_unique<BackgroundWatch>(++m_lastWatch, std::move(order), m_line, hide));
    m_output.note(QStringLiteral("watch %1: %2 (\"stop %1\" ends it)")
                      .arg(m_lastWatch)
                      .arg(m_watches.back()->title()));
}

void ShellSession::endWatches()
{
    m_watches.clear();
}

std::string ShellSession::place() const
{
    return m_isInteractive ? "" : "standard input, line " + std::to_string(m_lineNumber) + ": ";
}

int ShellSession::execute(const QString& text)
{
    try {
        return executeWords(wordsOf(text));
    } catch (const UserError& error) {
        m_output.error(QString::fromUtf8(error.what()));
        return error.status();
    } catch (const std::exception& error) {
        m_output.error(QString::fromUtf8(error.what()));
        return kExitRefused;
    }
}

int ShellSession::executeWords(QStringList words)
{
    if (words.value(0) == QLatin1String("micro850-host")) // a line that was copied
        words.removeFirst();
    const QString command = words.value(0);
    if (command.isEmpty())
        return kExitDone;
    if (command == QLatin1String("quit") || command == QLatin1String("exit"))
        m_quits = true;
    else if (command == QLatin1String("help") && words.size() == 1)
        help();
    else if (command == QLatin1String("help"))
        return runCommand({words.at(1), QStringLiteral("--help")});
    else if (command == QLatin1String("shell"))
        throw UserError("shell: this is one already (leave it with quit)");
    else if (command == QLatin1String("set"))
        set(words.mid(1));
    else if (command == QLatin1String("stop"))
        stop(words.mid(1));
    else
        return runCommand(withSettings(words));
    return kExitDone;
}

// A command that needs the port for itself gets it.
int ShellSession::runCommand(const QStringList& words)
{
    const QString& command = words.first();
    const bool needsPort = command == QLatin1String("probe") || command == QLatin1String("doctor");
    if (needsPort)
        givePort();
    int status = kExitRefused;
    try {
        status = parseAndRun(words);
    } catch (...) {
        takePort();
        throw;
    }
    if (needsPort)
        takePort();
    if (status == kExitDone)
        rememberNames(words);
    return status;
}

void ShellSession::givePort()
{
    for (const auto& watch : m_watches)
        watch->pause();
    m_line.suspend();
}

void ShellSession::takePort()
{
    for (const auto& watch : m_watches)
        watch->resume();
}

int ShellSession::parseAndRun(const QStringList& words)
{
    CommandLine line("micro850-host", "", "", "");
    addCommands(line);
    std::vector<std::string> arguments = {"micro850-host"};
    for (const QString& word : words)
        arguments.emplace_back(word.toLocal8Bit().constData());
    std::vector<char*> pointers(arguments.size());
    std::transform(arguments.begin(), arguments.end(), pointers.begin(),
                   [](std::string& argument) { return argument.data(); });
    return line.run(static_cast<int>(pointers.size()), pointers.data());
}

bool ShellSession::hasOption(const QString& command, const char* option) const
{
    return std::any_of(m_vocabulary.commands.begin(), m_vocabulary.commands.end(),
                       [&](const CommandLine::Listed& each) {
                           return command == QString::fromStdString(each.name) &&
                                  std::find(each.options.begin(), each.options.end(), option) !=
                                      each.options.end();
                       });
}

// An option that the command names itself counts.
QStringList ShellSession::withSettings(QStringList words) const
{
    const QString command = words.first();
    const bool reads = command == QLatin1String("poll") || command == QLatin1String("watch");
    const auto named = [&words](const QString& option) {
        return std::any_of(words.begin(), words.end(), [&option](const QString& word) {
            return word == option || word.startsWith(option + '=');
        });
    };
    if (reads && !m_settings.interval.empty() && !named(QStringLiteral("--interval")))
        words += QStringLiteral("--interval=") + QString::fromStdString(m_settings.interval);
    const std::pair<bool, const char*> flags[] = {
        {m_settings.json, "--json"}, {m_settings.raw, "--raw"}, {m_settings.quiet, "--quiet"}};
    for (const auto& [isOn, option] : flags) {
        if (isOn && hasOption(command, option) && !named(QLatin1String(option)))
            words += QLatin1String(option);
    }
    return words;
}

void ShellSession::help() const
{
    QStringList lines;
    for (const CommandLine::Listed& each : m_vocabulary.commands)
        lines += QString::fromStdString(each.name).leftJustified(9) +
                 QString::fromStdString(each.description);
    lines += QStringLiteral("\"help COMMAND\" shows its arguments.");
    m_output.data(Json(), lines);
}

void ShellSession::showSettings() const
{
    const auto text = [](bool isOn) { return isOn ? QStringLiteral("on") : QStringLiteral("off"); };
    const QString interval = QString::fromStdString(m_settings.interval);
    m_output.data(Json(),
                  QStringList{QStringLiteral("interval  ") +
                                  (interval.isEmpty() ? QStringLiteral("default") : interval),
                              QStringLiteral("json      ") + text(m_settings.json),
                              QStringLiteral("raw       ") + text(m_settings.raw),
                              QStringLiteral("quiet     ") + text(m_settings.quiet)});
}

void ShellSession::set(const QStringList& words)
{
    const QString name = words.value(0);
    const QString value = words.value(1);
    if (words.isEmpty()) {
        showSettings();
    } else if (words.size() != 2) {
        throw UserError("set: a name and one value (set interval 0.2, set json on)");
    } else if (name == QLatin1String("interval")) {
        bool isNumber = false;
        const double seconds = value.toDouble(&isNumber);
        const bool isDefault = value == QLatin1String("default");
        if (!isDefault && (!isNumber || !(seconds >= 0 && seconds <= 1e9)))
            throw UserError("set interval: \"" + value.toStdString() +
                            "\" is no time (seconds such as 0.2, or default)");
        m_settings.interval = isDefault ? "" : value.toStdString();
    } else if (name == QLatin1String("json")) {
        m_settings.json = isSwitch(value);
    } else if (name == QLatin1String("raw")) {
        m_settings.raw = isSwitch(value);
    } else if (name == QLatin1String("quiet")) {
        m_settings.quiet = isSwitch(value);
    } else {
        throw UserError("set: \"" + name.toStdString() + "\" is not a setting" +
                        didYouMean(name.toStdString(), {"interval", "json", "raw", "quiet"}) +
                        " (interval, json, raw or quiet)");
    }
}

void ShellSession::stop(const QStringList& words)
{
    if (words.isEmpty()) {
        endWatches();
        return;
    }
    const auto found = std::find_if(m_watches.begin(), m_watches.end(), [&](const auto& watch) {
        return QString::number(watch->number()) == words.first();
    });
    if (found == m_watches.end())
        throw UserError("stop: there is no watch \"" + words.first().toStdString() +
                        R"(" ("stop" ends all))");
    m_watches.erase(found);
}

// The tags of a command that worked.
void ShellSession::rememberNames(const QStringList& words)
{
    const QString& command = words.first();
    const bool takesNames = command == QLatin1String("read") || command == QLatin1String("write") ||
                            command == QLatin1String("watch");
    for (const QString& word : takesNames ? words.mid(1) : QStringList()) {
        const QString name = nameIn(word);
        if (isPlain(name) && !name.startsWith('-') && !m_vocabulary.names.contains(name) &&
            m_vocabulary.names.size() < kMostNames)
            m_vocabulary.names += name;
    }
}

} // namespace micro850::host
