// Library attach and detach (placeholder until the lifecycle family lands).
#include "platform/dlgsvc.h"

namespace {
__attribute__((constructor)) void ZrobjProcessAttach() { zr::ConfigureDiagFromEnvironment(); }
}  // namespace
