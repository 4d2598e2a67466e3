#include "Question.h"

#include "Visible.h"

#include <iostream>
#include <string>
#include <unistd.h>

namespace micro850::host {

bool canAsk()
{
    return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

bool isConfirmed(const QString& question)
{
    std::cerr << visible(question.toStdString()) << " [y/N] " << std::flush;
    std::string line;
    if (!std::getline(std::cin, line))
        std::cerr << std::endl; // after the question
    const QString answer = QString::fromLocal8Bit(line.c_str()).trimmed().toLower();
    return answer == QLatin1String("y") || answer == QLatin1String("yes");
}

} // namespace micro850::host
