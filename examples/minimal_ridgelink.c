/* SPDX-License-Identifier: LicenseRef-none-chosen-yet */
/*
 * minimal_ridgelink: one heartbeat. It sends the request, tells the bounce from the reply, and knows the reply by its tag:
 * status 0 when the reply came within two seconds, otherwise 1 with a sentence.
 */
#define _XOPEN_SOURCE 700
#include <hubkeeper/queue.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static struct hubkeeper_handle to_hub = HUBKEEPER_HANDLE(HUBKEEPER_KEY_INBOUND);
static struct hubkeeper_handle from_hub = HUBKEEPER_HANDLE(HUBKEEPER_KEY_RIDGELINK);
static struct hubkeeper_message message;

static int fail(const char *what) {
  const char *reason = errno == ETIMEDOUT ? "gave up waiting; is HubKeeper running?" : strerror(errno);
  fprintf(stderr, "%s: %s\n", what, reason);
  return 1;
}

/* What an earlier conversation left behind would be taken for an answer of this one. A missing queue is nothing to wait for:
 * HubKeeper makes a removed one anew only when it sends. */
static void drain(void) {
  while (hubkeeper_receive(&from_hub, &message, sizeof message.text, 0) >= 0) {
  }
}

/* HubKeeper takes any type; a type of one's own tells which requests are one's own to take back. */
static long own_type(void) { return 0x1000000L + getpid(); }

static int send_heartbeat(uint16_t tag) {
  message.mtype = own_type();
  return hubkeeper_send(&to_hub, &message,
                        hubkeeper_build(message.text, sizeof message.text, tag, HUBKEEPER_OPCODE_HEARTBEAT, NULL, 0),
                        1000);
}

/* What HubKeeper has not taken yet would be carried out later, when nobody waits for it any more. */
static void take_back(void) {
  while (msgrcv(to_hub.id, &message, sizeof message.text, own_type(), IPC_NOWAIT) >= 0) {
  }
}

int main(void) {
  const uint16_t tag = (uint16_t)getpid();
  struct hubkeeper_wait wait;
  /* First the right to send: whoever may not would only take the messages of somebody else. */
  if (hubkeeper_open_to_send(&to_hub, 2000) == -1) return fail("opening queue 1002");
  drain();
  if (send_heartbeat(tag) == -1) return fail("sending");
  wait = hubkeeper_begin_wait(2000); /* one for all that comes: what is no answer makes it no longer */
  do {
    const ssize_t size = hubkeeper_receive(&from_hub, &message, sizeof message.text, 0);
    const struct hubkeeper_header header = hubkeeper_read_header(message.text, size > 0 ? (size_t)size : 0);
    if (size == -1 && errno != ETIMEDOUT && errno != EIDRM) return fail("receiving");
    if (size == 1 && message.text[0] == HUBKEEPER_OPCODE_HEARTBEAT) printf("bounced: HubKeeper has taken it\n");
    if (header.opcode == HUBKEEPER_OPCODE_HEARTBEAT_REPLY && header.tag == tag) {
      printf("answered: %u bytes with tag %u\n", header.length, header.tag);
      return 0;
    }
  } while (hubkeeper_nap(&wait) == 0);
  fail("receiving the reply");
  take_back();
  return 1;
}
