#ifndef MICRO850_HOST_COMMANDS_EXAMINATION_H
#define MICRO850_HOST_COMMANDS_EXAMINATION_H

#include "AdapterReport.h"
#include "Connection.h"
#include "Diagnosis.h"
#include "Interrupt.h"
#include "Prober.h"
#include "TraceRecorder.h"

#include <memory>

namespace micro850::host {

/// Looks at everything that can be wrong between this machine and a controller, from the device to
/// the replies. It opens no connection to the controller, and writes nothing to it.
class Examination
{
public:
    /// The options and the project must live longer than this object.
    Examination(const LineOptions& options, const Project& project, const Output& output);

    /// Prints what it finds as it finds it. `reads` is how often the controller is asked in the
    /// end.
    void run(int reads);
    const Findings& findings() const { return m_findings; }
    /// The printed lines.
    const QStringList& lines() const { return m_lines; }
    /// Prints a result: a name and its text.
    void report(const char* name, bool good, const QString& text, const Json& details = Json());
    /// Throws UserError when the trace could not be written.
    void closeTrace();

private:
    void lookAtDevice();
    void lookAtUsers();
    void lookAtPeers();
    bool openLine(const PortSettings& port, Line& line);
    ProbeResult ask(Line& line, const PortSettings& port);
    void findController();
    bool tryOtherSettings();
    void reportController(const ProbeResult& result, const PortSettings& port);
    void readAgain(int reads);
    void reportSeries();
    Exchange::Observer observer();

    const LineOptions& m_options;
    const Project& m_project;
    const Output& m_output;
    const Interrupt m_interrupt; // before the line is open, so that it is closed in order
    const SystemClock m_clock;
    const DriverLibrary m_library;
    Prober m_prober;
    std::unique_ptr<TraceRecorder> m_trace;
    Findings m_findings;
    AdapterReport m_adapter;
    QByteArray m_sent; ///< the last request
    QStringList m_lines;
};

} // namespace micro850::host

#endif
