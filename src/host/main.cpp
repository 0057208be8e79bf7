#include "HostApplication.h"
#include "ProcessSetup.h"
#include "StopControl.h"

#include <memory>

int main(int argc, char** argv) {
    // first of all: no signal may end the host in disorder, and no thread may exist yet that would
    // take one
    const sigset_t stopSignals = ktr::host::blockStopSignals();
    ktr::host::setUpProcess();
    std::unique_ptr<ktr::host::HostApplication> application;
    {
        const ktr::host::KeepCrashHandlers keep;
        application = std::make_unique<ktr::host::HostApplication>(stopSignals);
    }
    return application->runWith(argc, argv);
}
