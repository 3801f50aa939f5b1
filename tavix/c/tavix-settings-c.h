#ifndef TAVIX_SETTINGS_C_H
#define TAVIX_SETTINGS_C_H

#include <stddef.h>
#include <stdint.h>

// The C interface of libtavix-settings: read, change and watch the settings of a device, over one connection for each
// handle. C99, and C++. tavix-settings-c(3) is its manual page. What holds for each function, unless its own comment
// has something else:
//
// Results:  a code. Everything that a function gives is given through its arguments, and only with TAVIX_OK.
// Bytes:    groups, keys and values are bytes, a pointer and a size; NUL is a legal byte. Functions that end in _z take
//           and give C strings instead; what holds a NUL byte is TAVIX_PARSE there. Bytes that are given have a NUL
//           behind them, which their size does not count.
// Errors:   "error" may be null. Any other null pointer is TAVIX_USAGE, and nothing is done. A call that fails has
//           changed nothing but what its comment names. No exception leaves a function, and none ends the process.
// Owns:     the caller owns handles and ends each once, by tavix_close, tavix_watch_close or tavix_document_free. What
//           is passed in is copied. Bytes that are given belong to the handle that gave them, and are valid until the
//           next call with that handle but for those that the function's comment names.
// Threads:  one at a time for each handle; several handles at once. A client or a watch that another thread uses is
//           TAVIX_BUSY. No thread outlives a call, and handles share no state.
// Fork:     a child may do nothing with its parent's clients and watches but end them, which its parent does not
//           notice: all else is TAVIX_USAGE. Documents are plain memory. Descriptors are closed on exec.
// Signals:  an interrupted wait goes on. No signal is raised, SIGPIPE included. No function may be called by a handler
//           of signals, and no thread may be cancelled inside of one.
// Time:     milliseconds, or TAVIX_FOREVER, which is ten days as the time-out of tavix_open and tavix_watch_open.
//           Functions of documents never wait. Those of a client wait no longer than the time-out of tavix_open to
//           connect and once more for each exchange, but for the system's resolver while it finds the address of a
//           host's name. A call is one exchange; tavix_test_and_merge is two when the change is not made, for the
//           reason, and tavix_amend is one more over a new connection, to ask what the server can do.

#if defined(__GNUC__)
#define TAVIX_C_API __attribute__((visibility("default")))
#else
#define TAVIX_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

// Codes. No number ever changes its meaning; later versions may add some.
#define TAVIX_OK 0
#define TAVIX_NOT_SET 1       // there is no such setting, or no next one
#define TAVIX_CONDITION 2     // the condition did not hold: nothing was changed
#define TAVIX_TIMEOUT 3       // the time was over; of a client: its connection was closed, a change may have been made
#define TAVIX_LOST 4          // there is no server, or the connection was lost; a change may have been made
#define TAVIX_REFUSED 5       // the server does not take the change: a restricted group, or one of its bounds
#define TAVIX_PARSE 6         // what was passed in, or was received, can't be read
#define TAVIX_USAGE 7         // the call is wrong: nothing was done, and nothing was sent
#define TAVIX_NO_MEMORY 8     // memory ran out; of a client: its connection was closed, a change may have been made
#define TAVIX_BUSY 9          // another thread uses the handle, or the system lacks what a connection takes
#define TAVIX_UNSUPPORTED 10  // the server is older than this request; nothing of the change was sent
#define TAVIX_INTERNAL 11     // anything else

#define TAVIX_FOREVER (-1)

// A settings document, a connection to a server, and what reports changes.
typedef struct tavix_document tavix_document;
typedef struct tavix_client tavix_client;
typedef struct tavix_watch tavix_watch;

// What became of a call: its code, and with any but TAVIX_OK a text for people, which is cut where it is longer. The
// caller's, who need not set anything in it.
typedef struct tavix_error {
  int32_t code;
  char text[508];
} tavix_error;

// The name of a code, such as "NOT_SET"; "UNKNOWN" for numbers that are none. It stays valid.
TAVIX_C_API const char* tavix_code_name(int32_t code);

// Documents: groups of keys with values, in ascending order of their bytes.

// A new document without groups.
TAVIX_C_API int32_t tavix_document_new(tavix_document** document, tavix_error* error);

// Null is fine.
TAVIX_C_API void tavix_document_free(tavix_document* document);

// Sets a value, and makes its group and key.
TAVIX_C_API int32_t tavix_document_set(tavix_document* document, const char* group, size_t group_size, const char* key,
                                       size_t key_size, const char* value, size_t value_size, tavix_error* error);
TAVIX_C_API int32_t tavix_document_set_z(tavix_document* document, const char* group, const char* key,
                                         const char* value, tavix_error* error);

// Makes a group without keys, unless it is there.
TAVIX_C_API int32_t tavix_document_set_group(tavix_document* document, const char* group, size_t group_size,
                                             tavix_error* error);
TAVIX_C_API int32_t tavix_document_set_group_z(tavix_document* document, const char* group, tavix_error* error);

// Removes a key; its group stays. TAVIX_NOT_SET: it is not there.
TAVIX_C_API int32_t tavix_document_unset(tavix_document* document, const char* group, size_t group_size,
                                         const char* key, size_t key_size, tavix_error* error);
TAVIX_C_API int32_t tavix_document_unset_z(tavix_document* document, const char* group, const char* key,
                                           tavix_error* error);

// Removes a group with its keys. TAVIX_NOT_SET: it is not there.
TAVIX_C_API int32_t tavix_document_unset_group(tavix_document* document, const char* group, size_t group_size,
                                               tavix_error* error);
TAVIX_C_API int32_t tavix_document_unset_group_z(tavix_document* document, const char* group, tavix_error* error);

// Gives a value, valid until the document is changed or freed. TAVIX_NOT_SET: it is not there.
TAVIX_C_API int32_t tavix_document_get(const tavix_document* document, const char* group, size_t group_size,
                                       const char* key, size_t key_size, const char** value, size_t* value_size,
                                       tavix_error* error);
TAVIX_C_API int32_t tavix_document_get_z(const tavix_document* document, const char* group, const char* key,
                                         const char** value, tavix_error* error);

// How many groups there are.
TAVIX_C_API int32_t tavix_document_count(const tavix_document* document, size_t* groups, tavix_error* error);

// How many keys a group has. TAVIX_NOT_SET: there is no such group.
TAVIX_C_API int32_t tavix_document_count_keys(const tavix_document* document, const char* group, size_t group_size,
                                              size_t* keys, tavix_error* error);
TAVIX_C_API int32_t tavix_document_count_keys_z(const tavix_document* document, const char* group, size_t* keys,
                                                tavix_error* error);

// Replace a name by the next one, in ascending order; a null pointer stands before the first. The document may be
// changed in between: the next name is the first one that is greater. Bytes are valid until it is changed or freed.
// TAVIX_NOT_SET: there is no next one, and the name stays.
//
//     const char* group = NULL;
//     while (tavix_document_next_group_z(document, &group, NULL) == TAVIX_OK) puts(group);
TAVIX_C_API int32_t tavix_document_next_group(const tavix_document* document, const char** group, size_t* group_size,
                                              tavix_error* error);
TAVIX_C_API int32_t tavix_document_next_group_z(const tavix_document* document, const char** group, tavix_error* error);
TAVIX_C_API int32_t tavix_document_next_key(const tavix_document* document, const char* group, size_t group_size,
                                            const char** key, size_t* key_size, const char** value, size_t* value_size,
                                            tavix_error* error);
TAVIX_C_API int32_t tavix_document_next_key_z(const tavix_document* document, const char* group, const char** key,
                                              const char** value, tavix_error* error);

// Adds what settings text holds; a key that exists gets the new value. TAVIX_PARSE: the error's text has the line, and
// nothing was added.
TAVIX_C_API int32_t tavix_document_parse(tavix_document* document, const char* text, size_t text_size,
                                         tavix_error* error);
TAVIX_C_API int32_t tavix_document_parse_z(tavix_document* document, const char* text, tavix_error* error);

// Gives the document as settings text, valid until it is printed again, or freed.
TAVIX_C_API int32_t tavix_document_print(tavix_document* document, const char** text, size_t* text_size,
                                         tavix_error* error);
TAVIX_C_API int32_t tavix_document_print_z(tavix_document* document, const char** text, tavix_error* error);

// Clients: one connection to a server. Each request looks first whether the server has ended it, and then makes a new
//          one.
// A request that fails on the way is not sent again. A name with a line break, or longer than a line may be, is
// TAVIX_USAGE, and nothing is sent.

// Connects. address: HOST, HOST:PORT, [V6], [V6]:PORT or unix:PATH. An empty one: what TAVIX_SETTINGS_SERVER or the
// hosts database has for tavix-settings-server, else 127.0.0.1. timeout_ms: 1 or more, for each request; TAVIX_FOREVER.
// TAVIX_LOST: there is no server.
TAVIX_C_API int32_t tavix_open(const char* address, size_t address_size, int32_t timeout_ms, tavix_client** client,
                               tavix_error* error);
TAVIX_C_API int32_t tavix_open_z(const char* address, int32_t timeout_ms, tavix_client** client, tavix_error* error);

// Ends a client, without waiting: what was sent is carried out if the server lives. Null is fine.
TAVIX_C_API void tavix_close(tavix_client* client);

// Gives a new document with the groups that names and '*' patterns mean; a name that does not exist is not there. The
// document is the caller's.
TAVIX_C_API int32_t tavix_get(tavix_client* client, const char* const* names, const size_t* sizes, size_t count,
                              tavix_document** document, tavix_error* error);
TAVIX_C_API int32_t tavix_get_z(tavix_client* client, const char* const* names, size_t count, tavix_document** document,
                                tavix_error* error);

// Gives one value; the group is no pattern. TAVIX_NOT_SET: it is not there.
TAVIX_C_API int32_t tavix_get_value(tavix_client* client, const char* group, size_t group_size, const char* key,
                                    size_t key_size, const char** value, size_t* value_size, tavix_error* error);
TAVIX_C_API int32_t tavix_get_value_z(tavix_client* client, const char* group, const char* key, const char** value,
                                      tavix_error* error);

// These writes return when they were sent: tavix_flush has what became of them. TAVIX_REFUSED, with nothing sent: a
// group, a name or a pattern that can only mean restricted groups.

// Sets values, and leaves all others. flags: 0, or TAVIX_MERGE_VOLATILE.
#define TAVIX_MERGE_VOLATILE 1  // the change is not saved: it is gone when the server ends
TAVIX_C_API int32_t tavix_merge(tavix_client* client, const tavix_document* change, int32_t flags, tavix_error* error);

// Removes the groups that the names and patterns mean, then sets the values of the change.
TAVIX_C_API int32_t tavix_overwrite(tavix_client* client, const char* const* names, const size_t* sizes, size_t count,
                                    const tavix_document* change, tavix_error* error);
TAVIX_C_API int32_t tavix_overwrite_z(tavix_client* client, const char* const* names, size_t count,
                                      const tavix_document* change, tavix_error* error);

// Removes the groups that the names and patterns mean.
TAVIX_C_API int32_t tavix_erase(tavix_client* client, const char* const* names, const size_t* sizes, size_t count,
                                tavix_error* error);
TAVIX_C_API int32_t tavix_erase_z(tavix_client* client, const char* const* names, size_t count, tavix_error* error);

// Puts the defaults of the groups that the names and patterns mean in their place.
TAVIX_C_API int32_t tavix_restore(tavix_client* client, const char* const* names, const size_t* sizes, size_t count,
                                  tavix_error* error);
TAVIX_C_API int32_t tavix_restore_z(tavix_client* client, const char* const* names, size_t count, tavix_error* error);

// Waits until the server has carried out all that was sent. TAVIX_LOST: the connection of a write since the last flush
// is gone, and nobody knows what became of it; later writes were waited for. TAVIX_REFUSED: the last write was not
// carried out, as the text says. Both are reported once. The server keeps the outcome of the last write alone: a write
// that it refused is not reported when another one follows before the flush.
TAVIX_C_API int32_t tavix_flush(tavix_client* client, tavix_error* error);

// These changes wait for their outcome. TAVIX_CONDITION, TAVIX_REFUSED: nothing was changed. TAVIX_CONDITION is also
// returned when the server did not make the change, and its reason was lost with the connection.

// Sets the values of the change if each value of the test is so.
TAVIX_C_API int32_t tavix_test_and_merge(tavix_client* client, const tavix_document* test, const tavix_document* change,
                                         tavix_error* error);

// One step: if each value of "present" is so, and no key of "absent" is set, the groups of "replace" become what stands
// there (without keys: they go), the values of "set" are set, and the keys of "unset" get their defaults back. A group
// without keys: of "absent", there is no such group; of "unset", all its keys. Values of keys of "absent" and "unset"
// are not looked at. All names are names, not patterns. TAVIX_UNSUPPORTED: the server is older.
TAVIX_C_API int32_t tavix_amend(tavix_client* client, const tavix_document* present, const tavix_document* absent,
                                const tavix_document* set, const tavix_document* unset, const tavix_document* replace,
                                tavix_error* error);

// Watches: changes of some groups, over a connection of their own. When it is lost, tavix_watch_next makes a new one,
// subscribes and reads again: what differs is returned as changes, and a TAVIX_CHANGE_RESYNC behind them. Changes of
// one key that wait to be returned are one, from the first old value to the newest one, and none if these are the same.

#define TAVIX_CHANGE_KEY 1     // a key got another value, came or went
#define TAVIX_CHANGE_GROUP 2   // a group without keys came or went
#define TAVIX_CHANGE_RESYNC 3  // no change: the connection was lost, and all that differs since was returned before

// A change; its watch owns it. Null bytes: there are none, such as the new value of a key that went. Later versions may
// have more members behind these.
typedef struct tavix_change {
  int32_t kind;  // TAVIX_CHANGE_KEY and so on; skip numbers that you don't know
  int32_t gone;  // 1: the group does not exist any more
  const char* group;
  size_t group_size;
  const char* key;
  size_t key_size;
  const char* old_value;
  size_t old_value_size;
  const char* new_value;
  size_t new_value_size;
} tavix_change;

// Connects, subscribes to the groups that names and patterns mean, and reads them. address and timeout_ms: as of
// tavix_open; it is waited for three times at worst: to connect, to read, to ask for a refusal. flags: 0, or
// TAVIX_WATCH_INITIAL. TAVIX_LOST: there is no server. TAVIX_REFUSED: the names and patterns are beyond a bound of the
// server.
#define TAVIX_WATCH_INITIAL 1  // what the groups hold at first is returned, too, as changes without an old value
TAVIX_C_API int32_t tavix_watch_open(const char* address, size_t address_size, const char* const* names,
                                     const size_t* sizes, size_t count, int32_t flags, int32_t timeout_ms,
                                     tavix_watch** watch, tavix_error* error);
TAVIX_C_API int32_t tavix_watch_open_z(const char* address, const char* const* names, size_t count, int32_t flags,
                                       int32_t timeout_ms, tavix_watch** watch, tavix_error* error);

// Ends a watch, without waiting. Null is fine.
TAVIX_C_API void tavix_watch_close(tavix_watch* watch);

// Gives a descriptor that poll(2) shows as readable when tavix_watch_next may have something to do: a change waits, or
// the connection is to be made again. The same one as long as the watch lives, which owns it: nobody else may read from
// it or close it. TAVIX_BUSY: the system has no descriptor left.
TAVIX_C_API int32_t tavix_watch_fd(tavix_watch* watch, int32_t* fd, tavix_error* error);

// Gives the next change, valid until the next call with the watch. timeout_ms: 0 does not wait for one; TAVIX_FOREVER.
// TAVIX_TIMEOUT: there was none. A call in which the connection is made again may take longer, by the time-out of
// tavix_watch_open to connect, once more to read and once more to ask for a refusal; if that fails, later calls try
// again, after 0.1 to 5 s each. After any other code the watch goes on, and misses nothing.
TAVIX_C_API int32_t tavix_watch_next(tavix_watch* watch, int32_t timeout_ms, const tavix_change** change,
                                     tavix_error* error);

#ifdef __cplusplus
}
#endif

#endif
