#pragma once

namespace varnel::app {

/// Handler of crash signals: writes a report with the stack to the system log, never to the process
/// log, whose locks the crashed thread may hold, and lets the process die by the same signal.
/// Threads that crash meanwhile wait for that end; a report that gets stuck or crashes itself ends
/// the same.
extern "C" void ReportCrash(int signal_number);

/// Makes the unwinder load now what it would otherwise load inside the handler, with locks and
/// allocations.
void PrepareCrashReport();

}  // namespace varnel::app
