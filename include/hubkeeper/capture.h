/* SPDX-License-Identifier: LicenseRef-none-chosen-yet */
/*
 * How hubctl trace records what runs through a hub: the header that stands before the text of each message, for whoever
 * reads such a recording. The file around it is a pcap with nanoseconds and link type USER0; docs/capture.md tells more.
 *
 * Freestanding C99 that is C++ as well, like protocol.h. All numbers have their low byte first.
 *
 *   byte  0  version   8 bits, HUBKEEPER_CAPTURE_VERSION
 *   byte  1  kind      8 bits, enum hubkeeper_capture_kind
 *   byte  2            16 bits, 0
 *   byte  4  key      32 bits, signed: the queue's; 0 where it is not known, or where there is none
 *   byte  8  result   32 bits, signed
 *   byte 12  value    64 bits, signed
 *   byte 20  lasted   64 bits: nanoseconds
 *   byte 28  the text of the message
 */
#ifndef HUBKEEPER_CAPTURE_H
#define HUBKEEPER_CAPTURE_H

#include "protocol.h"

#define HUBKEEPER_CAPTURE_LINK_TYPE 147 /* USER0 of pcap-linktype(7) */
#define HUBKEEPER_CAPTURE_VERSION 1
#define HUBKEEPER_CAPTURE_HEADER_SIZE 28

/** What a record tells of, and what its result, value and duration then are. */
enum hubkeeper_capture_kind {
  /* Messages. result: the bytes received, 0 for a message sent, or the error as a negative errno: the message was lost, or
     nothing was received. value: the mtype. lasted: how long the call took; for a receive, how long the hub waited. */
  HUBKEEPER_CAPTURE_IN = 1,      /* a Bundle to the hub */
  HUBKEEPER_CAPTURE_BOUNCE = 2,  /* one byte to Ridgelink */
  HUBKEEPER_CAPTURE_REPLY = 3,   /* any other message to Ridgelink */
  HUBKEEPER_CAPTURE_FORWARD = 4, /* a Packet to another peer */
  /* What happened besides; none of it has a text.
       OPENED    result: the id of the queue, or a negative errno; value: its owner's user id, -1 where that is not known;
                 lasted: how long the call took.
       COMMAND   A process of the hub's has ended. result: as wait(2) tells it; lasted: how long the hub waited for it.
       FULL      The queue to the hub has no room for another message like the last one. result: bytes in it; value: bytes
                 that it may hold; lasted: 0. Once more when it is less than half full: lasted tells how long that took.
       ATTACHED  From here on a hub is traced. result: its process; value: its user id.
       ENDED     It has ended. result: as wait(2) tells it. */
  HUBKEEPER_CAPTURE_OPENED = 5,
  HUBKEEPER_CAPTURE_COMMAND = 6,
  HUBKEEPER_CAPTURE_FULL = 7,
  HUBKEEPER_CAPTURE_ATTACHED = 8,
  HUBKEEPER_CAPTURE_ENDED = 9
};

struct hubkeeper_capture {
  uint8_t kind;
  int32_t key;
  int32_t result;
  int64_t value;
  uint64_t lasted;
};

/** An integer of `size` bytes, at most 8, low byte first. */
static inline uint64_t hubkeeper_read_number(const uint8_t *bytes, size_t size) {
  uint64_t value = 0;
  while (size > 0) value = value << 8 | bytes[--size];
  return value;
}

/** Writes an integer as `size` bytes, low byte first. */
static inline void hubkeeper_write_number(uint8_t *bytes, size_t size, uint64_t value) {
  size_t i;
  for (i = 0; i < size; ++i) bytes[i] = (uint8_t)(value >> (8 * i) & 0xFF);
}

/** Reads the header of a record of `size` bytes: 1, or 0 when it is too short, of another version or of no kind from above. */
static inline int hubkeeper_read_capture(const uint8_t *bytes, size_t size, struct hubkeeper_capture *capture) {
  if (bytes == NULL || size < HUBKEEPER_CAPTURE_HEADER_SIZE || bytes[0] != HUBKEEPER_CAPTURE_VERSION) return 0;
  capture->kind = bytes[1];
  capture->key = (int32_t)hubkeeper_read_number(bytes + 4, 4);
  capture->result = (int32_t)hubkeeper_read_number(bytes + 8, 4);
  capture->value = (int64_t)hubkeeper_read_number(bytes + 12, 8);
  capture->lasted = hubkeeper_read_number(bytes + 20, 8);
  return capture->kind >= HUBKEEPER_CAPTURE_IN && capture->kind <= HUBKEEPER_CAPTURE_ENDED;
}

/** Writes a header into HUBKEEPER_CAPTURE_HEADER_SIZE bytes. */
static inline void hubkeeper_write_capture(uint8_t *bytes, const struct hubkeeper_capture *capture) {
  bytes[0] = HUBKEEPER_CAPTURE_VERSION;
  bytes[1] = capture->kind;
  hubkeeper_write_number(bytes + 2, 2, 0);
  hubkeeper_write_number(bytes + 4, 4, (uint32_t)capture->key);
  hubkeeper_write_number(bytes + 8, 4, (uint32_t)capture->result);
  hubkeeper_write_number(bytes + 12, 8, (uint64_t)capture->value);
  hubkeeper_write_number(bytes + 20, 8, capture->lasted);
}

#endif
