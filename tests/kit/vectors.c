/* In: TAG OPCODE BYTES. Out: the walk of the bytes, and the Packet with them as its payload. C99, and C++ as well. */
#include <hubkeeper/protocol.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { room = 65536 };
static char line[2 * room + 32];
static uint8_t given[room], built[room];

static void print_bytes(const uint8_t *bytes, size_t size, const char *end) {
  for (; size > 0; --size) printf("%02x", *bytes++);
  printf("%s", end);
}

int main(void) {
  struct hubkeeper_walk none = {NULL, 5};
  struct hubkeeper_piece nothing;
  if (hubkeeper_next(&none, &nothing) != 0 || hubkeeper_build(built, room, 0, 0, NULL, 1) != 0) return 1;
  while (fgets(line, sizeof line, stdin) != NULL) {
    char *text = line;
    const uint16_t tag = (uint16_t)strtoul(text, &text, 10);
    const uint8_t opcode = (uint8_t)strtoul(text, &text, 10);
    const size_t size = strcspn(++text, "\n") / 2, needed = size + HUBKEEPER_HEADER_SIZE;
    uint8_t *bytes = given + room - size; /* a sanitizer sees every read behind the array */
    struct hubkeeper_walk walk = {bytes, size};
    struct hubkeeper_piece piece;
    for (; bytes < given + room; text += 2) sscanf(text, "%2hhx", bytes++);
    while (hubkeeper_next(&walk, &piece)) {
      const struct hubkeeper_header head = piece.header;
      printf("%zu %u %u %u %d ", piece.remaining, head.length, head.tag, head.opcode, piece.good);
      print_bytes(piece.bytes + 5, piece.good ? head.length - (size_t)5 : 0, ";");
    }
    if (hubkeeper_build(built, needed - 1, tag, opcode, bytes - size, size) != 0) printf("too little room");
    print_bytes(built, hubkeeper_build(built, needed, tag, opcode, bytes - size, size), "\n");
  }
  return 0;
}
