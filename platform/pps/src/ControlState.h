#ifndef EMS_CONTROLSTATE_H
#define EMS_CONTROLSTATE_H

// The engine's side of the test control: call counts, forced results and the
// arguments tests look at. The download settings live with the engine.

#include <cstdint>

#include "ems_control.h"

namespace ems {
namespace detail {

// Counts `call` (made for `taskIndex`, -1 when it takes none). True when the
// call is to fail: *result is then what it returns.
bool enter(control::Call call, int taskIndex, int* result);

void noteInitDirectory(const char* workDir);
void noteRead(int taskIndex, uint32_t count, int64_t position, const int64_t* hint);

// The engine's share of control::reset(): rate and pause.
void resetDownloadSettings();

}  // namespace detail
}  // namespace ems

#endif  // EMS_CONTROLSTATE_H
