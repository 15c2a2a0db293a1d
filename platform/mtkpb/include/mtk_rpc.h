/*
 * mtk_rpc.h - start-up of the platform's OS layer and RPC client, which the
 * playback engine needs before its first IMtkPb_Ctrl_Open.
 *
 * Order, once per process: x_rtos_init, handle_init, os_init,
 * c_rpc_init_client, c_rpc_start_client.
 */
#ifndef MTK_RPC_H
#define MTK_RPC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Configuration of the OS layer; all zero selects the defaults. */
typedef struct RTOS_CONFIG_T {
    uint32_t tickPeriodUs;
    uint32_t maxThreads;
    uint32_t maxSemaphores;
    uint32_t maxMessageQueues;
    uintptr_t reserved[4];
} RTOS_CONFIG_T;

/* 0 on success. */
int32_t x_rtos_init(RTOS_CONFIG_T* config);

/* Sets up `numHandles` handles in the memory at *memAddress of *memSize bytes;
 * a null *memAddress lets the layer choose. Both are written back. 0 on success. */
int32_t handle_init(uint16_t numHandles, void** memAddress, size_t* memSize);

/* Hands the OS layer its memory. 0 on success. */
int32_t os_init(const void* memAddress, size_t memSize);

/* 0 on success. */
int32_t c_rpc_init_client(void);

/* Non-negative on success, negative on failure. */
int32_t c_rpc_start_client(void);

#ifdef __cplusplus
}
#endif

#endif /* MTK_RPC_H */
