// Follows groups in a loop over poll(2), without a thread, and prints each change. Ends after that many changes.
//
//     poll-loop PATTERN CHANGES [GROUP KEY VALUE]...
//
// The values given are set while the groups are watched, so that there is something to see. Without them somebody else
// has to change the groups.

#define _POSIX_C_SOURCE 200809L

#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

#include "tavix/c/tavix-settings-c.h"

static void Print(const tavix_change* change) {
  if (change->kind == TAVIX_CHANGE_RESYNC) {
    printf("the connection was lost, and is there again\n");
  } else if (change->kind == TAVIX_CHANGE_GROUP) {
    printf("[%s] %s\n", change->group, change->gone ? "is gone" : "is new");
  } else {
    printf("[%s]%s: %s -> %s\n", change->group, change->key, change->old_value ? change->old_value : "(not set)",
           change->new_value ? change->new_value : "(not set)");
  }
}

// One request with all values: one step, that nobody sees half done.
static int32_t Set(char** values, int count, tavix_error* error) {
  tavix_client* client = NULL;
  tavix_document* change = NULL;
  int i;
  int32_t code = tavix_open_z("", 10000, &client, error);
  if (code == TAVIX_OK) code = tavix_document_new(&change, error);
  for (i = 0; code == TAVIX_OK && i + 2 < count; i += 3)
    code = tavix_document_set_z(change, values[i], values[i + 1], values[i + 2], error);
  if (code == TAVIX_OK) code = tavix_merge(client, change, 0, error);
  if (code == TAVIX_OK) code = tavix_flush(client, error);
  tavix_document_free(change);
  tavix_close(client);
  return code;
}

// A program of yours has other descriptors here, too. Whenever the watch's descriptor is readable, all changes that are
// there are taken; tavix_watch_next also makes a lost connection again.
static int32_t Follow(tavix_watch* watch, long changes, tavix_error* error) {
  struct pollfd wait = {-1, POLLIN, 0};
  int32_t fd = -1;
  int32_t code = tavix_watch_fd(watch, &fd, error);
  while (code == TAVIX_OK && changes > 0) {
    const tavix_change* change = NULL;
    wait.fd = fd;
    poll(&wait, 1, -1);
    while (changes > 0 && (code = tavix_watch_next(watch, 0, &change, error)) == TAVIX_OK) {
      Print(change);
      --changes;
    }
    if (code == TAVIX_TIMEOUT) code = TAVIX_OK;
  }
  return code;
}

int main(int argc, char** argv) {
  tavix_watch* watch = NULL;
  tavix_error error;
  int32_t code;
  if (argc < 3) {
    fprintf(stderr, "Usage: poll-loop PATTERN CHANGES [GROUP KEY VALUE]...\n");
    return 2;
  }
  code = tavix_watch_open_z("", (const char* const*)(argv + 1), 1, 0, 10000, &watch, &error);
  if (code == TAVIX_OK && argc > 3) code = Set(argv + 3, argc - 3, &error);
  if (code == TAVIX_OK) code = Follow(watch, strtol(argv[2], NULL, 10), &error);
  if (code != TAVIX_OK) fprintf(stderr, "poll-loop: %s: %s\n", tavix_code_name(code), error.text);
  tavix_watch_close(watch);
  return code == TAVIX_OK ? 0 : 1;
}
