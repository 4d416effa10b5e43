/* SPDX-License-Identifier: LicenseRef-none-chosen-yet */
/*
 * minimal_peer [QUEUE]: what Netsteward, Clocksteward, Chronicler and Stagehand have in common. It drains its queue
 * (netsteward by default), prints each Packet, and ends at SIGINT or SIGTERM.
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

static int find_key(const char *name) {
  size_t i;
  for (i = 0; i < HUBKEEPER_QUEUE_COUNT; ++i) {
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
  printf("opcode %02x, tag %u, %zu bytes:", header.opcode, header.tag, size - HUBKEEPER_HEADER_SIZE);
  for (i = HUBKEEPER_HEADER_SIZE; i < size; ++i) printf(" %02x", text[i]);
  printf("\n");
}

int main(int count, char **words) {
  static struct hubkeeper_message message;
  struct hubkeeper_handle queue = {find_key(count > 1 ? words[1] : "netsteward"), -1};
  struct sigaction action;
  if (queue.key == -1) {
    fprintf(stderr, "there is no queue \"%s\"\n", words[1]);
    return 2;
  }
  memset(&action, 0, sizeof action);
  action.sa_handler = end;
  sigaction(SIGINT, &action, NULL);
  sigaction(SIGTERM, &action, NULL);
  setvbuf(stdout, NULL, _IOLBF, 0);

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
