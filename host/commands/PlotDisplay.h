#ifndef MICRO850_HOST_COMMANDS_PLOTDISPLAY_H
#define MICRO850_HOST_COMMANDS_PLOTDISPLAY_H

#include "Plot.h"
#include "RunLoop.h"
#include "Screen.h"

namespace micro850::host {

/// One element that is drawn.
struct PlotElement
{
    int variable;
    int index;
    QString name;
};

/// Draws elements over time on the whole terminal.
class PlotDisplay : public LoopView
{
public:
    /// The run loop and the project must live longer than this object.
    PlotDisplay(RunLoop& run, const Project& project, const QVector<PlotElement>& elements,
                const PlotStyle& style);

    bool ownsTerminal() const override { return true; }
    bool quits() const override { return m_quits; }
    void update(Duration now) override;
    void close(Duration) override { m_screen.leave(); }

private:
    /// What is drawn, now or when it was paused.
    struct Picture
    {
        Plot plot;
        QVector<PlotLabel> labels;
        Duration now;
        Duration timeOfDay;
    };
    bool handleKeys(Duration now);
    void draw(Duration now);
    Picture picture(Duration now) const;
    Page page(int width, int rows, const Picture& picture) const;
    PlotLabel labelOf(const PlotElement& element) const;

    const Plant& m_plant;
    const Project& m_project;
    const LiveTable& m_table;
    QVector<PlotElement> m_elements;
    Duration m_span;
    Plot m_plot;
    Screen m_screen;
    Duration m_next{0};
    std::optional<Picture> m_held; ///< while it is paused
    bool m_quits = false;
};

} // namespace micro850::host

#endif
