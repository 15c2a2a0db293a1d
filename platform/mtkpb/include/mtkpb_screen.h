/*
 * mtkpb_screen.h - the software engine's screen as a host on a desktop sees it.
 *
 * The software engine presents pictures in a window that stands for the TV
 * screen. Keys pressed in that window stand for the box's remote: a host that
 * wants them registers a handler. Closing the window ends the playback of
 * every instance on it with IMTK_PB_CTRL_EVENT_EOS, and the handler gets
 * MTKPB_KEY_CLOSE.
 *
 * The box's engine has no such window; a host calls this only when it runs on
 * the software engine.
 */
#ifndef MTKPB_SCREEN_H
#define MTKPB_SCREEN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    MTKPB_KEY_CLOSE = 1, /* the viewer closed the window */
    MTKPB_KEY_QUIT,      /* q or Escape */
    MTKPB_KEY_PAUSE,     /* space */
    MTKPB_KEY_LEFT,
    MTKPB_KEY_RIGHT,
    MTKPB_KEY_UP,
    MTKPB_KEY_DOWN,
    MTKPB_KEY_HELP       /* ? */
};

/* Called on the engine's presenter thread, with no engine lock held; it must
 * return quickly and must not call IMtkPb_Ctrl_Close. */
typedef void (*MtkPb_Screen_KeyFct)(int32_t key, void* tag);

/* Replaces the handler; null: none. */
void MtkPb_Screen_SetKeyHandler(MtkPb_Screen_KeyFct handler, void* tag);

#ifdef __cplusplus
}
#endif

#endif /* MTKPB_SCREEN_H */
