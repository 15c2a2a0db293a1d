// Placeholder bodies so that the interface links while the engine is written.
#include "IMtkPb_Ctrl.h"
#include "mtk_rpc.h"
#include "mtkpb_control.h"

extern "C" {
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Open(IMTK_PB_HANDLE_T* phHandle, uint32_t, uint32_t, const char*) {
    if (phHandle != nullptr) *phHandle = 1;
    return IMTK_PB_ERROR_CODE_OK;
}
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_RegCallback(IMTK_PB_HANDLE_T, void*, IMtkPb_Ctrl_Nfy_Fct) { return 0; }
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_SetEngineParam(IMTK_PB_HANDLE_T, const PullSourceParams*) { return 0; }
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_GetMediaInfo(IMTK_PB_HANDLE_T, IMTK_PB_CTRL_MEDIA_INFO_T*) { return 0; }
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Play(IMTK_PB_HANDLE_T, uint32_t) { return 0; }
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Pause(IMTK_PB_HANDLE_T) { return 0; }
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_TimeSeek(IMTK_PB_HANDLE_T, uint32_t) { return 0; }
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_GetCurrentPos(IMTK_PB_HANDLE_T, uint32_t* t, uint64_t* p) {
    if (t != nullptr) *t = 0;
    if (p != nullptr) *p = 0;
    return 0;
}
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_SetDisplayRectangle(IMTK_PB_HANDLE_T, const EngineRect*, const EngineRect*) { return 0; }
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Stop(IMTK_PB_HANDLE_T) { return 0; }
IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Close(IMTK_PB_HANDLE_T) { return 0; }

int32_t x_rtos_init(RTOS_CONFIG_T*) { return 0; }
int32_t handle_init(uint16_t, void**, size_t*) { return 0; }
int32_t os_init(const void*, size_t) { return 0; }
int32_t c_rpc_init_client(void) { return 0; }
int32_t c_rpc_start_client(void) { return 0; }
}

namespace mtkpb {
namespace control {
void setResult(Op, int32_t) {}
void clearResult(Op) {}
void setSpeed(uint32_t) {}
uint32_t speed() { return 1; }
bool inject(IMTK_PB_CTRL_EVENT_T, intptr_t, IMTK_PB_HANDLE_T) { return false; }
Counters counters() { return Counters{}; }
uint64_t calls(Op) { return 0; }
uint64_t readsOutstanding() { return 0; }
uint64_t notifications(IMTK_PB_CTRL_EVENT_T) { return 0; }
uint64_t packetChecksum() { return kFnvOffsetBasis; }
uint64_t fnv1a64(uint64_t hash, const uint8_t* data, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        hash ^= data[i];
        hash *= 0x100000001b3ull;
    }
    return hash;
}
bool displayRectangles(EngineRect*, EngineRect*) { return false; }
bool waitUntil(const std::function<bool()>& condition, uint32_t) { return condition(); }
bool waitForNotifications(IMTK_PB_CTRL_EVENT_T, uint64_t, uint32_t) { return false; }
void reset() {}
}  // namespace control
}  // namespace mtkpb
