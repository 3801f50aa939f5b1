#ifndef TAVIX_TESTS_DOCUMENT_IN_C99_H
#define TAVIX_TESTS_DOCUMENT_IN_C99_H

// A program in C99 that uses a document. Returns what went wrong; an empty text when nothing did.

#ifdef __cplusplus
extern "C" {
#endif

const char* TavixUseDocumentInC99(void);

#ifdef __cplusplus
}
#endif

#endif
