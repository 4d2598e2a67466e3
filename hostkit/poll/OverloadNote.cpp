#include "OverloadNote.h"

#include "PlantTexts.h"

namespace micro850::host {

void OverloadNote::note(const LineLoad& load, const Project& project)
{
    if (load.isOverload && load.toldShare != m_share && load.variable >= 0)
        m_text = overloadText(load.toldShare, project.variables.at(load.variable).shownName(),
                              load.asked, load.actual);
    else if (!load.isOverload)
        m_text.clear();
    m_share = load.isOverload ? load.toldShare : 0;
}

} // namespace micro850::host
