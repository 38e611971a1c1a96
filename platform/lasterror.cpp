// The per-thread last error of the platform layer.
#include "platform/lasterror.h"

namespace zr::os {
namespace {
thread_local DWORD t_last_error = 0;
}  // namespace

DWORD GetLastError() { return t_last_error; }
void SetLastError(DWORD error) { t_last_error = error; }

}  // namespace zr::os
