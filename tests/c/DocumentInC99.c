#include "tavix/c/tavix-settings-c.h"
#include "tests/c/DocumentInC99.h"

#include <string.h>

static const char* Use(tavix_document* document) {
  const char* text = NULL;
  size_t size = 0;
  if (tavix_document_parse_z(document, "[A]\nx=1\n", NULL) != TAVIX_OK) return "not parsed";
  if (tavix_document_set(document, "A", 1, "y", 1, "\0", 1, NULL) != TAVIX_OK) return "not set";
  if (tavix_document_get(document, "A", 1, "y", 1, &text, &size, NULL) != TAVIX_OK) return "not there";
  if (size != 1 || *text != '\0') return "another value";
  if (tavix_document_get_z(document, "A", "y", &text, NULL) != TAVIX_PARSE) return "a C string was cut";
  if (tavix_document_print_z(document, &text, NULL) != TAVIX_OK) return "not printed";
  return strcmp(text, "[A]\nx=1\ny=\\x00\n") == 0 ? "" : "printed otherwise";
}

const char* TavixUseDocumentInC99(void) {
  tavix_document* document = NULL;
  tavix_error error;
  const char* failure;
  if (tavix_document_new(&document, &error) != TAVIX_OK) return "no document";
  if (error.code != TAVIX_OK || error.text[0] != '\0') return "an error after success";
  failure = Use(document);
  tavix_document_free(document);
  return failure;
}
