// Rpc.cpp - start-up of the OS layer and the RPC client. The software engine
// runs in-process and needs neither; the calls succeed unless a test forces
// their results.
#include "mtk_rpc.h"

#include "Control.h"

using mtkpb::control::Op;

namespace {
bool forced(Op op, int32_t* result) { return mtkpb::detail::forced(op, result); }
}  // namespace

extern "C" {

int32_t x_rtos_init(RTOS_CONFIG_T* config) {
    int32_t result = 0;
    if (forced(Op::kRtosInit, &result)) return result;
    return config != nullptr ? 0 : -1;
}

int32_t handle_init(uint16_t numHandles, void** memAddress, size_t* memSize) {
    int32_t result = 0;
    if (forced(Op::kHandleInit, &result)) return result;
    return numHandles != 0 && memAddress != nullptr && memSize != nullptr ? 0 : -1;
}

int32_t os_init(const void* /*memAddress*/, size_t /*memSize*/) {
    int32_t result = 0;
    if (forced(Op::kOsInit, &result)) return result;
    return 0;
}

int32_t c_rpc_init_client(void) {
    int32_t result = 0;
    if (forced(Op::kRpcInitClient, &result)) return result;
    return 0;
}

int32_t c_rpc_start_client(void) {
    int32_t result = 0;
    if (forced(Op::kRpcStartClient, &result)) return result;
    return 0;
}

}  // extern "C"
