// Reads one setting of the device and prints it. The settings server must be running; TAVIX_SETTINGS_SERVER=HOST:PORT
// says where if it is not 127.0.0.1:7211.

#include <stdio.h>

#include "tavix/c/tavix-settings-c.h"

int main(void) {
  tavix_client* client = NULL;
  const char* value = NULL;
  tavix_error error;
  int32_t code = tavix_open_z("", 10000, &client, &error);
  if (code == TAVIX_OK) code = tavix_get_value_z(client, "Video/Streams/Main", "resolution", &value, &error);
  if (code == TAVIX_OK) {
    puts(value);
  } else {
    fprintf(stderr, "read-value: %s: %s\n", tavix_code_name(code), error.text);
  }
  tavix_close(client);
  return code == TAVIX_OK ? 0 : 1;
}
