#include <stdio.h>
#include <string.h>

#include "tavix/c/tavix-settings-c.h"

/* Prints what check-install expects: a value, and an error of the library. */
int main(void) {
  tavix_document* document = NULL;
  const char* value = NULL;
  tavix_error error;
  int status = 1;
  if (tavix_document_new(&document, &error) == TAVIX_OK &&
      tavix_document_set_z(document, "Network", "hostname", "camera-7", &error) == TAVIX_OK &&
      tavix_document_get_z(document, "Network", "hostname", &value, &error) == TAVIX_OK) {
    puts(value);
    status = tavix_document_parse_z(document, "hostname", &error) == TAVIX_PARSE ? 0 : 1;
    printf("%s\n", error.text);
  }
  tavix_document_free(document);
  return status;
}
