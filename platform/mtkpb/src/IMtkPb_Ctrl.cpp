// IMtkPb_Ctrl.cpp - the engine's control operations: instance handles,
// forced results, and the hand-over to the instance.
#include "IMtkPb_Ctrl.h"

#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>

#include "Control.h"
#include "Engine.h"

using mtkpb::control::Op;
using mtkpb::detail::Engine;

namespace {

// Open instances by handle. Built once, never destroyed: instances left open
// at exit keep their threads until the process ends.
struct Instances {
    std::mutex mutex;  // guards map and next
    std::map<IMTK_PB_HANDLE_T, std::shared_ptr<Engine>> map;
    IMTK_PB_HANDLE_T next = 1;
};

Instances& instances() {
    static Instances* i = new Instances;
    return *i;
}

std::shared_ptr<Engine> find(IMTK_PB_HANDLE_T handle) {
    Instances& all = instances();
    std::lock_guard<std::mutex> lock(all.mutex);
    auto it = all.map.find(handle);
    return it == all.map.end() ? nullptr : it->second;
}

}  // namespace

// Counts the call; returns the forced result, if any, before anything is done.
#define MTKPB_FORCED(op)                                   \
    do {                                                   \
        int32_t forcedResult = 0;                          \
        if (mtkpb::detail::forced(op, &forcedResult)) {    \
            return forcedResult;                           \
        }                                                  \
    } while (0)

// Looks the instance up, or returns IMTK_PB_ERROR_CODE_INV_HANDLE.
#define MTKPB_INSTANCE(engine, handle)                                   \
    std::shared_ptr<Engine> engine = find(handle);                       \
    if (!engine) return IMTK_PB_ERROR_CODE_INV_HANDLE

extern "C" {

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Open(IMTK_PB_HANDLE_T* phHandle, uint32_t bufferingModel,
                                      uint32_t operatingModel, const char* profile) {
    MTKPB_FORCED(Op::kOpen);
    if (phHandle == nullptr || profile == nullptr ||
        bufferingModel != IMTK_PB_CTRL_BUFFERING_MODEL_PULL ||
        operatingModel != IMTK_PB_CTRL_APP_MASTER_PULL) {
        return IMTK_PB_ERROR_CODE_INV_ARG;
    }
    Instances& all = instances();
    std::lock_guard<std::mutex> lock(all.mutex);
    IMTK_PB_HANDLE_T handle = all.next++;
    all.map[handle] = std::make_shared<Engine>(handle);
    *phHandle = handle;
    return IMTK_PB_ERROR_CODE_OK;
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_RegCallback(IMTK_PB_HANDLE_T hHandle, void* tag,
                                             IMtkPb_Ctrl_Nfy_Fct callback) {
    MTKPB_FORCED(Op::kRegCallback);
    MTKPB_INSTANCE(engine, hHandle);
    return engine->regCallback(tag, callback);
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_SetEngineParam(IMTK_PB_HANDLE_T hHandle,
                                                const PullSourceParams* params) {
    MTKPB_FORCED(Op::kSetEngineParam);
    MTKPB_INSTANCE(engine, hHandle);
    if (params == nullptr) return IMTK_PB_ERROR_CODE_INV_ARG;
    return engine->setSource(*params);
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_GetMediaInfo(IMTK_PB_HANDLE_T hHandle,
                                              IMTK_PB_CTRL_MEDIA_INFO_T* info) {
    MTKPB_FORCED(Op::kGetMediaInfo);
    MTKPB_INSTANCE(engine, hHandle);
    return engine->mediaInfo(info);
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Play(IMTK_PB_HANDLE_T hHandle, uint32_t /*reserved*/) {
    MTKPB_FORCED(Op::kPlay);
    MTKPB_INSTANCE(engine, hHandle);
    return engine->play();
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Pause(IMTK_PB_HANDLE_T hHandle) {
    MTKPB_FORCED(Op::kPause);
    MTKPB_INSTANCE(engine, hHandle);
    return engine->pause();
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_TimeSeek(IMTK_PB_HANDLE_T hHandle, uint32_t seconds) {
    MTKPB_FORCED(Op::kTimeSeek);
    MTKPB_INSTANCE(engine, hHandle);
    return engine->timeSeek(seconds);
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_GetCurrentPos(IMTK_PB_HANDLE_T hHandle, uint32_t* timeMs,
                                               uint64_t* bytePos) {
    MTKPB_FORCED(Op::kGetCurrentPos);
    MTKPB_INSTANCE(engine, hHandle);
    return engine->currentPos(timeMs, bytePos);
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_SetDisplayRectangle(IMTK_PB_HANDLE_T hHandle,
                                                     const EngineRect* full,
                                                     const EngineRect* output) {
    MTKPB_FORCED(Op::kSetDisplayRectangle);
    MTKPB_INSTANCE(engine, hHandle);
    if (full == nullptr || output == nullptr) return IMTK_PB_ERROR_CODE_INV_ARG;
    return engine->display(*full, *output);
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Stop(IMTK_PB_HANDLE_T hHandle) {
    MTKPB_FORCED(Op::kStop);
    MTKPB_INSTANCE(engine, hHandle);
    return engine->stop();
}

IMTK_PB_ERROR_CODE_T IMtkPb_Ctrl_Close(IMTK_PB_HANDLE_T hHandle) {
    MTKPB_FORCED(Op::kClose);
    MTKPB_INSTANCE(engine, hHandle);
    IMTK_PB_ERROR_CODE_T result = engine->close();
    if (result == IMTK_PB_ERROR_CODE_INV_STATE) return result;  // from its own notification
    Instances& all = instances();
    std::lock_guard<std::mutex> lock(all.mutex);
    all.map.erase(hHandle);
    return result;
}

}  // extern "C"

namespace mtkpb {
namespace control {

bool inject(IMTK_PB_CTRL_EVENT_T event, intptr_t data, IMTK_PB_HANDLE_T handle) {
    std::shared_ptr<Engine> engine;
    {
        Instances& all = instances();
        std::lock_guard<std::mutex> lock(all.mutex);
        auto it = handle != 0 ? all.map.find(handle)
                  : all.map.empty() ? all.map.end()
                                    : std::prev(all.map.end());  // handles only grow
        if (it == all.map.end()) return false;
        engine = it->second;
    }
    engine->inject(event, data);
    return true;
}

}  // namespace control
}  // namespace mtkpb
