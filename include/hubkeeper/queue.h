/* SPDX-License-Identifier: LicenseRef-none-chosen-yet */
/*
 * What a peer of HubKeeper must know of System V message queues, one small function each: open a queue in the way that
 * disturbs nobody, receive or send with a time-out, notice a queue that was removed and open the one that took its
 * place. C99 that is C++ as well; sources: msgget(2), msgop(2), msgctl(2), sysvipc(7).
 *
 * Whoever includes this defines _XOPEN_SOURCE as 700 (or _GNU_SOURCE) before the first include of the file.
 *
 * A call of the kernel's has no time-out of its own. These functions look, and nap between two looks, from 10 us growing to 10 ms,
 * on the monotonic clock: no signal is sent, caught or blocked, so a peer's own signals work as ever. A peer that
 * wants to be woken by the message itself calls msgrcv(2) with handle.id.
 *
 * Time-outs are in milliseconds; 0 looks once, a negative one waits for ever. A function that fails returns -1 with errno:
 *   ETIMEDOUT  nothing came, or there was no room, or no such queue, for so long. strerror(3) says "Connection timed out",
 *              which tells a user little: say it in words of your own
 *   EINTR      a handler of the peer's ended a nap; call again, or end. One that runs between two naps ends nothing: who
 *              waits for a flag of a handler's uses time-outs of, say, a second and looks at the flag after each
 *   EIDRM      the queue was removed, with all that was in it; the next call opens the one that takes its place
 *   EACCES     the queue is there, and this user may not use it so
 *   others     as msgget(2), msgrcv(2) and msgsnd(2) give them
 */
#ifndef HUBKEEPER_QUEUE_H
#define HUBKEEPER_QUEUE_H

#if !defined(_XOPEN_SOURCE) && !defined(_GNU_SOURCE)
#error "define _XOPEN_SOURCE as 700 before the first include of the file"
#endif

#include <errno.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/types.h>
#include <time.h>

#include "protocol.h"

/** A queue that is used, begun with HUBKEEPER_HANDLE(key). Belongs to one thread. */
struct hubkeeper_handle {
  int key;
  int id; /* -1 while the queue is not open; 0 is the id of a queue, so a handle of zeros is not one that is closed */
};

/** What a handle begins with: struct hubkeeper_handle queue = HUBKEEPER_HANDLE(HUBKEEPER_KEY_NETSTEWARD); */
#define HUBKEEPER_HANDLE(key) \
  { (key), -1 }

/** A message with room for any text that HubKeeper takes or sends. */
struct hubkeeper_message {
  long mtype;
  uint8_t text[HUBKEEPER_BUNDLE_MAX];
};

/** A wait that is under way: hubkeeper_begin_wait sets it, hubkeeper_nap makes it one nap longer. */
struct hubkeeper_wait {
  struct timespec began;
  long timeout; /* in milliseconds, negative for no end */
  long nap;     /* in nanoseconds, the next one */
};

static inline struct hubkeeper_wait hubkeeper_begin_wait(long timeout) {
  struct hubkeeper_wait wait;
  clock_gettime(CLOCK_MONOTONIC, &wait.began);
  wait.timeout = timeout;
  wait.nap = 10000;
  return wait;
}

/** Naps, each time twice as long up to 10 ms. 0, or -1 with errno ETIMEDOUT at the end of the wait, EINTR at a signal. */
static inline int hubkeeper_nap(struct hubkeeper_wait *wait) {
  struct timespec now, nap;
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (wait->timeout >= 0) {
    const double gone = (double)(now.tv_sec - wait->began.tv_sec) * 1e9 + (double)(now.tv_nsec - wait->began.tv_nsec);
    const double left = (double)wait->timeout * 1e6 - gone;
    if (left <= 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    if (left < (double)wait->nap) wait->nap = (long)left + 1;
  }
  nap.tv_sec = 0;
  nap.tv_nsec = wait->nap;
  wait->nap = wait->nap < 5000000 ? wait->nap * 2 : 10000000;
  return nanosleep(&nap, NULL);
}

/** Opens the queue like the two below; `rights`, as in a mode, is what the kernel is asked for. */
static inline int hubkeeper_open_with(struct hubkeeper_handle *handle, int rights, long timeout) {
  struct hubkeeper_wait wait = hubkeeper_begin_wait(timeout);
  if (handle->key == IPC_PRIVATE) { /* msgget(2) would create a queue for this key, whatever the flags */
    errno = EINVAL;
    return -1;
  }
  while (handle->id == -1) {
    handle->id = msgget(handle->key, rights);
    if (handle->id == -1 && (errno != ENOENT || hubkeeper_nap(&wait) == -1)) return -1;
  }
  return 0;
}

/**
 * Opens the queue of handle->key without ever creating it, and waits for it as long as there is none: who creates a
 * queue owns it, and that is HubKeeper's part. 0, also when it is open already, or -1 (ETIMEDOUT: no such queue; EINVAL: the
 * key is 0, of which no queue can be found).
 */
static inline int hubkeeper_open(struct hubkeeper_handle *handle, long timeout) {
  return hubkeeper_open_with(handle, 0, timeout);
}

/**
 * The same for who is going to send: EACCES where this user may not. Nothing is touched for it, so a Ridgelink calls this
 * before it takes anything off queue 1003, whose messages are somebody else's if it may not send.
 */
static inline int hubkeeper_open_to_send(struct hubkeeper_handle *handle, long timeout) {
  return hubkeeper_open_with(handle, 0222, timeout);
}

/** After a failed call: closes the handle and sets errno to EIDRM if the reason was that the queue is gone. Always -1. */
static inline int hubkeeper_notice_removal(struct hubkeeper_handle *handle) {
  const int reason = errno;
  struct msqid_ds state;
  /* A call that was waiting is told EIDRM, a later one EINVAL, which a size or a type can be the reason of as well. */
  const int gone =
      reason == EIDRM || (reason == EINVAL && msgctl(handle->id, IPC_STAT, &state) == -1 && errno != EACCES);
  if (gone) handle->id = -1;
  errno = gone ? EIDRM : reason;
  return -1;
}

/**
 * Takes the oldest message off the queue, opening it first where that is needed. `message` is a struct hubkeeper_message,
 * or any other that has a long followed by `room` bytes. Returns the number of bytes of text, 0 included, or -1 (E2BIG:
 * the message is longer and stays where it is).
 */
static inline ssize_t hubkeeper_receive(struct hubkeeper_handle *handle, void *message, size_t room, long timeout) {
  struct hubkeeper_wait wait = hubkeeper_begin_wait(timeout);
  if (hubkeeper_open(handle, timeout) == -1) return -1;
  for (;;) {
    const ssize_t size = msgrcv(handle->id, message, room, 0, IPC_NOWAIT);
    if (size >= 0) return size;
    if (errno != ENOMSG) return hubkeeper_notice_removal(handle);
    if (hubkeeper_nap(&wait) == -1) return -1;
  }
}

/**
 * Puts a message of `size` bytes of text on the queue, opening it first where that is needed, and waits for room. The long
 * at the beginning of `message`, its type, is above 0; HubKeeper takes any. 0, or -1 (ETIMEDOUT: nobody made room; EINVAL:
 * the type is not above 0, or the text is longer than the kernel's msgmax).
 */
static inline int hubkeeper_send(struct hubkeeper_handle *handle, const void *message, size_t size, long timeout) {
  struct hubkeeper_wait wait = hubkeeper_begin_wait(timeout);
  if (hubkeeper_open_to_send(handle, timeout) == -1) return -1;
  while (msgsnd(handle->id, message, size, IPC_NOWAIT) == -1) {
    if (errno != EAGAIN) return hubkeeper_notice_removal(handle);
    if (hubkeeper_nap(&wait) == -1) return -1;
  }
  return 0;
}

#endif
