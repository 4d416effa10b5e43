/* SPDX-License-Identifier: LicenseRef-none-chosen-yet */
/*
 * minimal_ridgelink: one heartbeat. It sends the request, tells the bounce from the reply, and knows the reply by its tag:
 * status 0 when both came within two seconds, otherwise 1 with a sentence.
 */
#define _XOPEN_SOURCE 700
#include <hubkeeper/queue.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static struct hubkeeper_handle to_hub = {HUBKEEPER_KEY_INBOUND, -1};
static struct hubkeeper_handle from_hub = {HUBKEEPER_KEY_RIDGELINK, -1};
static struct hubkeeper_message message;

static int fail(const char *what) {
  fprintf(stderr, "%s: %s\n", what, strerror(errno));
  return 1;
}

/* What an earlier conversation left behind would be taken for an answer of this one. */
static void drain(void) {
  while (hubkeeper_receive(&from_hub, &message, sizeof message.text, 0) >= 0) {
  }
}

static int send_heartbeat(uint16_t tag) {
  message.mtype = HUBKEEPER_MTYPE;
  return hubkeeper_send(&to_hub, &message,
                        hubkeeper_build(message.text, sizeof message.text, tag, HUBKEEPER_OPCODE_HEARTBEAT, NULL, 0),
                        1000);
}

int main(void) {
  const uint16_t tag = (uint16_t)getpid();
  int bounced = 0;
  if (hubkeeper_open(&to_hub, 2000) == -1 || hubkeeper_open(&from_hub, 2000) == -1) return fail("HubKeeper's queues");
  drain();
  if (send_heartbeat(tag) == -1) return fail("sending");
  for (;;) {
    const ssize_t size = hubkeeper_receive(&from_hub, &message, sizeof message.text, 2000);
    const struct hubkeeper_header header = hubkeeper_read_header(message.text, size > 0 ? (size_t)size : 0);
    if (size == -1) return fail(bounced ? "bounced, but not answered" : "no answer");
    if (size == 1 && message.text[0] == HUBKEEPER_OPCODE_HEARTBEAT) {
      printf("bounced: HubKeeper has taken it\n");
      bounced = 1;
    } else if (header.opcode == HUBKEEPER_OPCODE_HEARTBEAT_REPLY && header.tag == tag) {
      printf("answered: %u bytes with tag %u\n", header.length, header.tag);
      return bounced ? 0 : 1;
    }
  }
}
