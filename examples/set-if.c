// Changes a setting only if it still has the value that the caller knows, and prints what became of that.
//
//     set-if GROUP KEY OLD NEW
//
// The exit status is 0 when the setting was changed, 1 when it has another value, 2 when something went wrong.

#include <stdio.h>

#include "tavix/c/tavix-settings-c.h"

static int32_t MakeDocument(const char* group, const char* key, const char* value, tavix_document** document,
                            tavix_error* error) {
  const int32_t code = tavix_document_new(document, error);
  return code == TAVIX_OK ? tavix_document_set_z(*document, group, key, value, error) : code;
}

static int32_t SetIf(char** arguments, tavix_error* error) {
  tavix_client* client = NULL;
  tavix_document* test = NULL;
  tavix_document* change = NULL;
  int32_t code = tavix_open_z("", 10000, &client, error);
  if (code == TAVIX_OK) code = MakeDocument(arguments[0], arguments[1], arguments[2], &test, error);
  if (code == TAVIX_OK) code = MakeDocument(arguments[0], arguments[1], arguments[3], &change, error);
  if (code == TAVIX_OK) code = tavix_test_and_merge(client, test, change, error);
  tavix_document_free(change);
  tavix_document_free(test);
  tavix_close(client);
  return code;
}

int main(int argc, char** argv) {
  tavix_error error;
  int32_t code;
  if (argc != 5) {
    fprintf(stderr, "Usage: set-if GROUP KEY OLD NEW\n");
    return 2;
  }
  code = SetIf(argv + 1, &error);
  switch (code) {
    case TAVIX_OK:
      printf("[%s]%s: %s -> %s\n", argv[1], argv[2], argv[3], argv[4]);
      return 0;
    case TAVIX_CONDITION:
      printf("[%s]%s is not %s\n", argv[1], argv[2], argv[3]);
      return 1;
    default:
      fprintf(stderr, "set-if: %s: %s\n", tavix_code_name(code), error.text);
      return 2;
  }
}
