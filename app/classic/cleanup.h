// Removal of the output's temporary file when SIGHUP, SIGINT or SIGTERM
// ends the process. The handlers are installed while a temporary file may
// exist and put back when it is gone; a signal the caller chose to ignore
// stays ignored. The process then dies of the signal, so that its parent
// sees how the run ended.
#pragma once

#include "support/atomic_output.h"

namespace laytran::classic {

class SignalCleanup : public AtomicOutput::Watch {
  public:
    void live(int dir_fd, const char *name) override;
    void ending() override;
    void gone() override;
};

} // namespace laytran::classic
