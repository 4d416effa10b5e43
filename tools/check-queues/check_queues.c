/*
 * check-queues: run before each start of hubkeeper(8), as the user that it runs as.
 *
 * Whoever may write to the queues has HubKeeper's rights, and whoever owns the file of the commands' output forges it. So both
 * are made here: a queue in a way that fails where somebody was faster, and only then is judged what stands there; the file in
 * the place of whatever has its name. From then on nobody else can make them, as long as nobody with HubKeeper's rights removes
 * them. Status 0, or 1 after a line on standard error for each reason to refuse the start; each line names the command that mends
 * it, or that shows why.
 */
#include <fcntl.h>
#include <grp.h>
#include <hubkeeper/queue.h>
#include <pwd.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define OUTPUT "/tmp/cmdresp.txt"

static int refused;

static void refuse(const char *format, ...) __attribute__((format(printf, 1, 2)));

static void refuse(const char *format, ...) {
  va_list values;
  va_start(values, format);
  fputs("hubkeeper: refusing to start: ", stderr);
  vfprintf(stderr, format, values);
  va_end(values);
  refused = 1;
}

static int isTrusted(uid_t user) { return user == 0 || user == geteuid(); }

/* From the files themselves: what getpwuid(3) loads at run time may not fit a static program. */
static const char *userName(uid_t user) {
  FILE *list = fopen("/etc/passwd", "re");
  const struct passwd *entry = NULL;
  while (list && (entry = fgetpwent(list)) && entry->pw_uid != user) continue;
  if (list) fclose(list);
  return entry ? entry->pw_name : "unnamed";
}

static const char *groupName(gid_t group) {
  FILE *list = fopen("/etc/group", "re");
  const struct group *entry = NULL;
  while (list && (entry = fgetgrent(list)) && entry->gr_gid != group) continue;
  if (list) fclose(list);
  return entry ? entry->gr_name : "unnamed";
}

/* Both owner and creator count: either may change the mode at any time, see msgctl(2). */
static void judgeQueue(const struct hubkeeper_queue *queue, int id, const struct ipc_perm *rights) {
  const uid_t user = isTrusted(rights->uid) ? rights->cuid : rights->uid;
  const unsigned excess =
      rights->mode & 0022U & ~(unsigned)HUBKEEPER_QUEUE_MODE; /* reading and executing give no more */
  char who[200] = "";
  if (!isTrusted(user)) {
    snprintf(who, sizeof who, "which lets this user");
  } else if (excess & S_IWOTH) {
    snprintf(who, sizeof who, "which lets every user");
  } else if (excess) {
    snprintf(who, sizeof who, "which lets the groups %s and %s", groupName(rights->gid), groupName(rights->cgid));
  }
  if (who[0] == '\0') return;
  refuse(
      "message queue %d (id %d) belongs to user %s (uid %lu) and has mode %04o, %s write to it in %s's name. "
      "Remove it with 'ipcrm -q %d', and HubKeeper starts.\n",
      queue->key, id, userName(user), (unsigned long)user, rights->mode & 0777U, who, queue->from, id);
}

static void claimQueue(const struct hubkeeper_queue *queue) {
  struct msqid_ds state;
  int id = msgget(queue->key, IPC_CREAT | IPC_EXCL | HUBKEEPER_QUEUE_MODE);
  if (id == -1 && errno == EEXIST) id = msgget(queue->key, 0);
  if (id != -1 && msgctl(id, IPC_STAT, &state) == 0) {
    judgeQueue(queue, id, &state.msg_perm);
  } else {
    refuse("message queue %d cannot be %s: %s. 'ipcs -q' shows whose queues there are, 'ipcrm -q ID' removes one.\n",
           queue->key, id == -1 ? "made" : "looked at", strerror(errno));
  }
}

static void warnOfOpenDirectory(void) {
  struct stat state;
  if (stat("/tmp", &state) == -1) return;
  if (isTrusted(state.st_uid) && (!(state.st_mode & 0022) || state.st_mode & S_ISVTX)) return;
  fprintf(stderr,
          "hubkeeper: warning: /tmp belongs to user %s and has mode %04o, so others can replace " OUTPUT
          " and forge the output of commands. Mend it with 'chown root /tmp; chmod 1777 /tmp'.\n",
          userName(state.st_uid), (unsigned)state.st_mode & 07777U);
}

/* A foreign directory with something in it is not walked through, since its owner could change it meanwhile. */
static int replaceDirectory(const char *made) {
  char aside[] = "/tmp/hubkeeper.XXXXXX";
  if (renameat2(AT_FDCWD, made, AT_FDCWD, OUTPUT, RENAME_EXCHANGE) == 0) {
    strcpy(aside, made);
  } else if (!mkdtemp(aside)) { /* on a disk that cannot exchange two names */
    return -1;
  } else if (rename(OUTPUT, aside) == -1 || rename(made, OUTPUT) == -1) {
    rmdir(aside);
    return -1;
  }
  if (rmdir(aside) == -1) fprintf(stderr, "hubkeeper: what stood at " OUTPUT " is now %s\n", aside);
  return 0;
}

/* Again, since what stands there may be another thing by the time of the second step. */
static int giveName(const char *made) {
  for (int again = 100; again > 0; --again) {
    if (rename(made, OUTPUT) == 0) return 0;
    if (errno != EISDIR) return -1;
    if (replaceDirectory(made) == 0) return 0;
  }
  return -1;
}

static int makeFile(char *made) {
  const int file = mkstemp(strcpy(made, "/tmp/hubkeeper.XXXXXX"));
  if (file == -1) return errno;
  close(file);
  return 0;
}

/*
 * Whatever stands there goes, a file of our own too: others may have opened it while it had another mode. The new one is made
 * under a name that nobody knows and then given this one, so that there is no moment in which somebody is faster.
 */
static void claimOutput(void) {
  char made[sizeof "/tmp/hubkeeper.XXXXXX"];
  struct stat state;
  int failed;
  warnOfOpenDirectory();
  failed = makeFile(made);
  if (failed == ENOSPC && unlink(OUTPUT) == 0) failed = makeFile(made); /* in the room of that one */
  if (failed == EROFS || failed == ENOENT) {                            /* nobody else can make it either */
    fprintf(stderr, "hubkeeper: warning: " OUTPUT " cannot be made (%s): commands will not work\n", strerror(failed));
  } else if (failed) {
    refuse(OUTPUT " cannot be made: %s. 'df /tmp; df -i /tmp' shows whether there is room.\n", strerror(failed));
  } else if (giveName(made) == -1) {
    if (lstat(OUTPUT, &state) == -1) state.st_uid = (uid_t)-1;
    refuse(OUTPUT
           " belongs to user %s (uid %lu), who could forge the output of commands. Remove it with 'rm -rf " OUTPUT
           "', and HubKeeper starts.\n",
           userName(state.st_uid), (unsigned long)state.st_uid);
    unlink(made);
  }
}

int main(void) {
  for (int place = 0; place < HUBKEEPER_QUEUE_COUNT; ++place) claimQueue(&hubkeeper_queues[place]);
  claimOutput();
  return refused;
}
