/* SPDX-License-Identifier: LicenseRef-none-chosen-yet */
/*
 * minimal_peer [PEER]: what the local processes have in common. It drains its queue
 * (netsteward by default), prints each Packet as hubctl and the Python module do, and ends at SIGINT or SIGTERM.
 */
#define _XOPEN_SOURCE 700
#include <hubkeeper/queue.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

static volatile sig_atomic_t ended;

static void end(int number) {
  (void)number;
  ended = 1;
}

/* The key of a peer's queue. HubKeeper's own and Ridgelink's are not for peers: draining them would steal. */
static int find_key(const char *name) {
  size_t i;
  for (i = 0; i < HUBKEEPER_QUEUE_COUNT; ++i) {
    if (i == HUBKEEPER_QUEUE_INBOUND || i == HUBKEEPER_QUEUE_RIDGELINK) continue;
    if (strcmp(hubkeeper_queues[i].name, name) == 0) return hubkeeper_queues[i].key;
  }
  return -1;
}

static void print_packet(const uint8_t *text, size_t size) {
  const struct hubkeeper_header header = hubkeeper_read_header(text, size);
  size_t i;
  if (header.length != size) { /* every message of HubKeeper's to a peer is exactly one Packet */
    printf("%zu bytes that are no whole Packet\n", size);
    return;
  }
  printf("%02x %s, tag %u, %u bytes", header.opcode, hubkeeper_find_opcode(header.opcode)->name, header.tag,
         header.length);
  for (i = HUBKEEPER_HEADER_SIZE; i < size; ++i) printf("%s %02x", i == HUBKEEPER_HEADER_SIZE ? ":" : "", text[i]);
  printf("\n");
}

int main(int count, char **words) {
  static struct hubkeeper_message message;
  struct hubkeeper_handle queue = HUBKEEPER_HANDLE(find_key(count > 1 ? words[1] : "netsteward"));
  struct sigaction action;
  if (queue.key == -1 || count > 2) {
    fprintf(stderr, "usage: minimal_peer [PEER], in small letters\n");
    return 2;
  }
  memset(&action, 0, sizeof action);
  action.sa_handler = end;
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);
  setvbuf(stdout, NULL, _IOLBF, 0);

  if (hubkeeper_open(&queue, 0) == -1 && errno == ETIMEDOUT) fprintf(stderr, "no queue yet; waiting for HubKeeper\n");
  while (!ended) {
    const ssize_t size = hubkeeper_receive(&queue, &message, sizeof message.text, 1000);
    if (size >= 0) {
      print_packet(message.text, (size_t)size);
    } else if (errno == EIDRM) {
      fprintf(stderr, "the queue was removed; waiting for the next one\n");
    } else if (errno != ETIMEDOUT && errno != EINTR) {
      perror("receiving");
      return 1;
    }
  }
  return 0;
}
