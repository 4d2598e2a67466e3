#include "Question.h"

#include "Visible.h"

#include <cstdio>
#include <iostream>
#include <poll.h>
#include <string>
#include <unistd.h>

namespace micro850::host {

namespace {

// A signal does not end the reading of a line, but what waits for one.
const int kLookMs = 100;

bool awaitLine(const std::function<bool()>& isInterrupted)
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    while (!isInterrupted()) {
        if (::poll(&input, 1, kLookMs) > 0)
            return true;
    }
    return false;
}

} // namespace

bool canAsk()
{
    return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

bool isConfirmed(const QString& question, const std::function<bool()>& isInterrupted)
{
    std::cerr << visible(question.toStdString()) << " [y/N] " << std::flush;
    std::string line;
    if (!awaitLine(isInterrupted) || !std::getline(std::cin, line)) {
        std::cerr << std::endl; // after the question
        // Of a terminal the end of the input is the end of this answer.
        std::clearerr(stdin);
        std::cin.clear();
        return false;
    }
    const QString answer = QString::fromLocal8Bit(line.c_str()).trimmed().toLower();
    return answer == QLatin1String("y") || answer == QLatin1String("yes");
}

} // namespace micro850::host
