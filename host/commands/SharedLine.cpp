#include "SharedLine.h"

namespace micro850::host {

namespace {

SharedLine* theSharedLine = nullptr;

} // namespace

SharedLine::SharedLine()
{
    theSharedLine = this;
}

SharedLine::~SharedLine()
{
    theSharedLine = nullptr;
}

SharedLine* SharedLine::current()
{
    return theSharedLine;
}

} // namespace micro850::host
