/* SPDX-License-Identifier: LicenseRef-none-chosen-yet */
/*
 * The facts of HubKeeper's wire, and the few functions that everybody who speaks it needs: queue keys, opcodes, sizes, the
 * header of a Packet, the walk of a Bundle. The service and hubctl are built from this file.
 *
 * Freestanding C99 that is C++ as well: no dependency, no allocation, no state. Bytes are read and written one by one, so
 * neither the alignment nor the byte order of the host plays a part.
 *
 *   byte 0  length   16 bits, low byte first: the whole Packet, these five bytes included
 *   byte 2  tag      16 bits, low byte first: given back in a reply, otherwise not interpreted; unasked Packets carry 0
 *   byte 4  opcode    8 bits, decides where the Packet goes
 *   byte 5  payload  length - 5 bytes
 *
 * A Bundle is one or more Packets back to back, in the text of one message; the size of the message ends it.
 */
#ifndef HUBKEEPER_PROTOCOL_H
#define HUBKEEPER_PROTOCOL_H

#include <stddef.h>
#include <stdint.h>

/* Two blocks of memory that do not overlap; C++ knows the word only as an extension of its compilers. */
#if !defined(__cplusplus)
#define HUBKEEPER_RESTRICT restrict
#elif defined(__GNUC__)
#define HUBKEEPER_RESTRICT __restrict
#else
#define HUBKEEPER_RESTRICT
#endif

/* Sizes in bytes. */
#define HUBKEEPER_HEADER_SIZE 5
#define HUBKEEPER_PACKET_MAX 512  /* a Packet that HubKeeper builds or forwards: the text of one message */
#define HUBKEEPER_PAYLOAD_MAX 507 /* of such a Packet */
#define HUBKEEPER_BUNDLE_MAX 8192 /* the text of one message to HubKeeper */
#define HUBKEEPER_COMMAND_MAX 999 /* characters of a command's text, the NUL that ends it not counted */

/* Keys of the queues, for msgget(2). Each is named after the peer that fills or drains it, but for INBOUND: to HubKeeper. */
#define HUBKEEPER_KEY_INBOUND 1002
#define HUBKEEPER_KEY_NETSTEWARD 1000
#define HUBKEEPER_KEY_CLOCKSTEWARD 1011
#define HUBKEEPER_KEY_CHRONICLER 1010
#define HUBKEEPER_KEY_STAGEHAND 1006
#define HUBKEEPER_KEY_RIDGELINK 1003

#define HUBKEEPER_QUEUE_MODE 0644 /* what HubKeeper creates a missing queue with */
#define HUBKEEPER_MTYPE 1         /* of every message that HubKeeper sends; it takes messages of any type */

/** The queues, in the order in which HubKeeper opens them. */
enum hubkeeper_queue_index {
  HUBKEEPER_QUEUE_INBOUND,
  HUBKEEPER_QUEUE_NETSTEWARD,
  HUBKEEPER_QUEUE_CLOCKSTEWARD,
  HUBKEEPER_QUEUE_CHRONICLER,
  HUBKEEPER_QUEUE_STAGEHAND,
  HUBKEEPER_QUEUE_RIDGELINK,
  HUBKEEPER_QUEUE_COUNT
};

struct hubkeeper_queue {
  int key;
  const char *name;
  const char *from;
  const char *to;
};

/**
 * One row for each of them, in the same order. Every source file that uses this table has a copy of its own: tell a queue by
 * its key or its place, not by its address.
 */
static const struct hubkeeper_queue hubkeeper_queues[HUBKEEPER_QUEUE_COUNT] = {
    {HUBKEEPER_KEY_INBOUND, "inbound", "Ridgelink", "HubKeeper"},
    {HUBKEEPER_KEY_NETSTEWARD, "netsteward", "HubKeeper", "Netsteward"},
    {HUBKEEPER_KEY_CLOCKSTEWARD, "clocksteward", "HubKeeper", "Clocksteward"},
    {HUBKEEPER_KEY_CHRONICLER, "chronicler", "HubKeeper", "Chronicler"},
    {HUBKEEPER_KEY_STAGEHAND, "stagehand", "HubKeeper", "Stagehand"},
    {HUBKEEPER_KEY_RIDGELINK, "ridgelink", "HubKeeper", "Ridgelink"},
};

/* Opcodes of Ridgelink's that HubKeeper carries out itself. */
#define HUBKEEPER_OPCODE_HEARTBEAT 0x04 /* lies in Netsteward's range, but never reaches it */
#define HUBKEEPER_OPCODE_VERSION 0x60
#define HUBKEEPER_OPCODE_COMMAND 0x63
#define HUBKEEPER_OPCODE_TRANSFER_START 0x70
#define HUBKEEPER_OPCODE_TRANSFER_CHUNK 0x71
#define HUBKEEPER_OPCODE_TRANSFER_END 0x72
#define HUBKEEPER_OPCODE_CLOCKSTEWARD_DISABLE 0x75
#define HUBKEEPER_OPCODE_CLOCKSTEWARD_ENABLE 0x76

/* Opcodes of what HubKeeper sends to Ridgelink. */
#define HUBKEEPER_OPCODE_HEARTBEAT_REPLY 0x80
#define HUBKEEPER_OPCODE_PACKAGE 0x87
#define HUBKEEPER_OPCODE_VERSION_REPLY 0x88
#define HUBKEEPER_OPCODE_PACKAGE_OTHER 0x8A
#define HUBKEEPER_OPCODE_COMMAND_REPLY 0x90

/** What HubKeeper does with a Packet from Ridgelink. */
enum hubkeeper_route {
  HUBKEEPER_ROUTE_HEARTBEAT,
  HUBKEEPER_ROUTE_CHRONICLER,
  HUBKEEPER_ROUTE_NETSTEWARD,
  HUBKEEPER_ROUTE_CLOCKSTEWARD,
  HUBKEEPER_ROUTE_VERSION,
  HUBKEEPER_ROUTE_COMMAND,
  HUBKEEPER_ROUTE_TRANSFER_START,
  HUBKEEPER_ROUTE_TRANSFER_CHUNK,
  HUBKEEPER_ROUTE_TRANSFER_END,
  HUBKEEPER_ROUTE_CLOCKSTEWARD_DISABLE,
  HUBKEEPER_ROUTE_CLOCKSTEWARD_ENABLE,
  HUBKEEPER_ROUTE_NONE /* bounced, logged and dropped */
};

struct hubkeeper_opcode_range {
  uint8_t first;
  uint8_t last;
  enum hubkeeper_route route;
  const char *name;
};

/** Every opcode: the first row that holds it wins, so the order counts. The last row holds whatever is left. */
static const struct hubkeeper_opcode_range hubkeeper_opcodes[] = {
    {HUBKEEPER_OPCODE_HEARTBEAT, HUBKEEPER_OPCODE_HEARTBEAT, HUBKEEPER_ROUTE_HEARTBEAT, "heartbeat"},
    {0x30, 0x30, HUBKEEPER_ROUTE_CHRONICLER, "to chronicler"},
    {0x00, 0x1F, HUBKEEPER_ROUTE_NETSTEWARD, "to netsteward"},
    {0x20, 0x28, HUBKEEPER_ROUTE_CLOCKSTEWARD, "to clocksteward"},
    {HUBKEEPER_OPCODE_VERSION, HUBKEEPER_OPCODE_VERSION, HUBKEEPER_ROUTE_VERSION, "version"},
    {HUBKEEPER_OPCODE_COMMAND, HUBKEEPER_OPCODE_COMMAND, HUBKEEPER_ROUTE_COMMAND, "command"},
    {HUBKEEPER_OPCODE_TRANSFER_START, HUBKEEPER_OPCODE_TRANSFER_START, HUBKEEPER_ROUTE_TRANSFER_START,
     "transfer start"},
    {HUBKEEPER_OPCODE_TRANSFER_CHUNK, HUBKEEPER_OPCODE_TRANSFER_CHUNK, HUBKEEPER_ROUTE_TRANSFER_CHUNK,
     "transfer chunk"},
    {HUBKEEPER_OPCODE_TRANSFER_END, HUBKEEPER_OPCODE_TRANSFER_END, HUBKEEPER_ROUTE_TRANSFER_END, "transfer end"},
    {HUBKEEPER_OPCODE_CLOCKSTEWARD_DISABLE, HUBKEEPER_OPCODE_CLOCKSTEWARD_DISABLE, HUBKEEPER_ROUTE_CLOCKSTEWARD_DISABLE,
     "clocksteward disable"},
    {HUBKEEPER_OPCODE_CLOCKSTEWARD_ENABLE, HUBKEEPER_OPCODE_CLOCKSTEWARD_ENABLE, HUBKEEPER_ROUTE_CLOCKSTEWARD_ENABLE,
     "clocksteward enable"},
    {HUBKEEPER_OPCODE_HEARTBEAT_REPLY, HUBKEEPER_OPCODE_HEARTBEAT_REPLY, HUBKEEPER_ROUTE_NONE, "heartbeat reply"},
    {HUBKEEPER_OPCODE_PACKAGE, HUBKEEPER_OPCODE_PACKAGE, HUBKEEPER_ROUTE_NONE, "package"},
    {HUBKEEPER_OPCODE_VERSION_REPLY, HUBKEEPER_OPCODE_VERSION_REPLY, HUBKEEPER_ROUTE_NONE, "version reply"},
    {HUBKEEPER_OPCODE_PACKAGE_OTHER, HUBKEEPER_OPCODE_PACKAGE_OTHER, HUBKEEPER_ROUTE_NONE, "package other"},
    {HUBKEEPER_OPCODE_COMMAND_REPLY, HUBKEEPER_OPCODE_COMMAND_REPLY, HUBKEEPER_ROUTE_NONE, "command reply"},
    {0x00, 0xFF, HUBKEEPER_ROUTE_NONE, "unknown"},
};

/** The row of an opcode; there is one for each. */
static inline const struct hubkeeper_opcode_range *hubkeeper_find_opcode(uint8_t opcode) {
  const struct hubkeeper_opcode_range *row = hubkeeper_opcodes;
  while (opcode < row->first || opcode > row->last) ++row;
  return row;
}

/** A 16-bit integer from two bytes, low byte first. */
static inline uint16_t hubkeeper_read16(const uint8_t *bytes) { return (uint16_t)(bytes[0] | bytes[1] << 8); }

/** Writes a 16-bit integer as two bytes, low byte first. */
static inline void hubkeeper_write16(uint8_t *bytes, uint16_t value) {
  bytes[0] = (uint8_t)(value & 0xFF);
  bytes[1] = (uint8_t)(value >> 8);
}

struct hubkeeper_header {
  uint16_t length;
  uint16_t tag;
  uint8_t opcode;
};

/**
 * Reads the header of the Packet at `bytes`, of which `size` bytes may be read. A null pointer or fewer than 5 bytes yield
 * what HubKeeper takes them for: length 65535, tag 65535, opcode 255. The length is not judged.
 */
static inline struct hubkeeper_header hubkeeper_read_header(const uint8_t *bytes, size_t size) {
  struct hubkeeper_header header = {0xFFFF, 0xFFFF, 0xFF};
  if (bytes == NULL || size < HUBKEEPER_HEADER_SIZE) return header;
  header.length = hubkeeper_read16(bytes);
  header.tag = hubkeeper_read16(bytes + 2);
  header.opcode = bytes[4];
  return header;
}

/** 1 when a Packet of `length` bytes has a whole header and lies within `size` bytes, otherwise 0. */
static inline int hubkeeper_fits(uint16_t length, size_t size) {
  return length >= HUBKEEPER_HEADER_SIZE && length <= size;
}

/**
 * Builds a Packet in `buffer`, which has room for `room` bytes, and returns its size; it must not overlap `payload`, which
 * may be null when `payload_size` is 0. Returns 0 and touches nothing when the buffer is null, the Packet does not fit
 * it, or the length would not fit its 16 bits. HubKeeper forwards at most 512 bytes (HUBKEEPER_PACKET_MAX); what it
 * consumes itself is bounded by its Bundle alone.
 */
static inline size_t hubkeeper_build(uint8_t *HUBKEEPER_RESTRICT buffer, size_t room, uint16_t tag, uint8_t opcode,
                                     const uint8_t *HUBKEEPER_RESTRICT payload, size_t payload_size) {
  size_t i;
  if (buffer == NULL || (payload == NULL && payload_size > 0)) return 0;
  if (payload_size > 0xFFFF - HUBKEEPER_HEADER_SIZE || payload_size + HUBKEEPER_HEADER_SIZE > room) return 0;
  hubkeeper_write16(buffer, (uint16_t)(payload_size + HUBKEEPER_HEADER_SIZE));
  hubkeeper_write16(buffer + 2, tag);
  buffer[4] = opcode;
  for (i = 0; i < payload_size; ++i) buffer[HUBKEEPER_HEADER_SIZE + i] = payload[i];
  return payload_size + HUBKEEPER_HEADER_SIZE;
}

/** What is left of a Bundle that is being walked. Set both fields, then call hubkeeper_next. */
struct hubkeeper_walk {
  const uint8_t *bytes;
  size_t remaining;
};

/** One step of a walk. */
struct hubkeeper_piece {
  const uint8_t *bytes; /* where the Packet begins in the Bundle */
  size_t remaining;     /* bytes from there to the end of the Bundle, not the Packet's own length */
  struct hubkeeper_header header;
  int good; /* 0: the length is under 5 or beyond the Bundle; nothing tells where the next Packet begins */
};

/**
 * Hands out the next Packet of a Bundle: 1, or 0 when nothing is left (a null Bundle has nothing). What a bad length leaves,
 * or a rest of fewer than 5 bytes, is handed out once as well, and ends the walk: HubKeeper bounces and routes a
 * Packet before it judges its length. The payload of a good Packet lies at bytes + 5 and has header.length - 5 bytes.
 */
static inline int hubkeeper_next(struct hubkeeper_walk *walk, struct hubkeeper_piece *piece) {
  if (walk->bytes == NULL || walk->remaining == 0) return 0;
  piece->bytes = walk->bytes;
  piece->remaining = walk->remaining;
  piece->header = hubkeeper_read_header(walk->bytes, walk->remaining);
  piece->good = hubkeeper_fits(piece->header.length, walk->remaining);
  if (piece->good) walk->bytes += piece->header.length;
  walk->remaining = piece->good ? walk->remaining - piece->header.length : 0;
  return 1;
}

#endif
