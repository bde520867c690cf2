/*
 * oxutil: the companion library of oxEvent: settings store, directories, clocks, HTTP.
 *
 * Plain C, no exception escapes. Functions that return a result code return 0 for success. A store handle is used by
 * one thread at a time; everything else may be called from any thread. Texts are NUL-terminated bytes, taken and given
 * as they are.
 *
 * The settings store is a tree of keys with text values, kept in an XML file:
 *
 *   <?xml version="1.0" encoding="UTF-8"?>
 *   <config>
 *     <key name="A">
 *       <key name="B">
 *         <value name="size">1024</value>
 *       </key>
 *     </key>
 *   </config>
 *
 * A key path joins names with one backslash ("A\B"). Names compare byte for byte; of two equal names the first counts.
 */
#ifndef OXUTIL_H
#define OXUTIL_H

#include <stdint.h>

#if defined(__GNUC__)
#define OXUTIL_API __attribute__((visibility("default")))
#else
#define OXUTIL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* What oxCFGGetNext returns when there is no further entry. */
#define OXCFG_NO_MORE 0xFFFFFFFFu

/*
 * Opens the store in an existing file; flags must be 0. An empty file is an empty store. Null when the file is missing,
 * unreadable, no regular file, over 64 MiB, not such an XML file, or one that no save could write as it is: with a
 * control byte, a reference to a character that XML cannot hold (&#0;, &#1;), or a comment with "--" inside. A refused
 * file is never changed. oxCFGClose frees the handle.
 */
OXUTIL_API void* oxCFGOpen(const char* path, uint32_t flags);

/* Non-zero when the key exists. */
OXUTIL_API uint32_t oxCFGKeyExists(void* store, const char* key);

/*
 * Creates the key `name` below `parent`, and what is missing of `parent`; an empty `name` creates `parent` itself. An
 * existing key is left alone. A key carries no text of its own: `value` is not used.
 */
OXUTIL_API uint32_t oxCFGAddKeyString(void* store, const char* parent, const char* name, const char* value,
                                      uint32_t reserved1, uint32_t reserved2);

/*
 * Walks the sub-keys and values of a key in file order: writes the name that follows `previous_name` (empty: the first)
 * to `result_name`, a buffer of 512 bytes, and 0 for a sub-key or 1 for a value to `kind`. OXCFG_NO_MORE at the end.
 * Names that no path can hold (empty, over 511 bytes, with a backslash) are passed over.
 */
OXUTIL_API uint32_t oxCFGGetNext(void* store, const char* key, char* result_name, const char* previous_name,
                                 uint32_t* kind);

/*
 * Mode 0 gets, mode 1 sets a number. A get passes over white space (space, tab, CR, LF) before and after the number,
 * and fails unless the rest is a decimal number from 0 to 4294967295; a set fails when the key is missing.
 */
OXUTIL_API uint32_t oxCFGValueDword(void* store, const char* key, const char* name, uint32_t* value, uint32_t mode);

/*
 * Mode 0 gets a text: *length is the buffer's size on entry and the bytes written, without the terminating zero, on
 * return; a longer text is cut. Mode 1 sets the value to the first *length bytes of the buffer; it fails when the key
 * is missing, or when they hold a control byte other than tab, CR and LF, which XML cannot hold.
 */
OXUTIL_API uint32_t oxCFGValueString(void* store, const char* key, const char* name, char* buffer, uint32_t* length,
                                     uint32_t mode);

/*
 * Writes a changed store back: beside the file, synced, then renamed over it (over a symbolic link's target), so that
 * at any moment the file is the old or the new one, whole. Owner, group, mode and the extended attributes that the
 * process may see stay; so do comments and elements that are not the store's. Fails, with the file as it was, when any
 * of this cannot be done, the file has been changed by someone else since it was opened, memory ran out in any call for
 * this handle, or security.ima or security.evm vouches for its bytes. Also fails when the directory cannot be synced
 * after the rename. `reserved` and `mode` are not used.
 */
OXUTIL_API uint32_t oxCFGSave(void* store, uint32_t reserved, uint32_t mode);

/* Frees the handle without saving. `mode` is not used. */
OXUTIL_API uint32_t oxCFGClose(void* store, uint32_t mode);

/* Frees a buffer that this library returned; null is allowed. */
OXUTIL_API void OXFree(void* buffer);

/* Non-zero when the path is a directory. */
OXUTIL_API int32_t oxOSFileIsDir(const char* path);

/* Creates one directory with the permission bits given, less the process's umask. 0 for success. */
OXUTIL_API int32_t oxOSMakeDir(const char* path, uint32_t permissions);

/* UTC in nanoseconds since 1970-01-01 (CLOCK_REALTIME, which PTP disciplines where it is in use). */
OXUTIL_API uint64_t oxOSGetTimePTPNano(void);

/* Milliseconds of CLOCK_MONOTONIC, modulo 2^32. */
OXUTIL_API uint32_t oxOSGetMs(void);

/*
 * Makes one HTTP/1.1 request (RFC 9110, 9112) over http or https and waits for the whole answer, at most timeout_ms
 * milliseconds: name lookup, connection, TLS and every stall included; 0 fails immediately. Non-zero: the answer came
 * and its status is 2xx.
 *
 * url, method: as for any HTTP client; a method that is no token (RFC 9110, section 5.6.2) makes the request fail with
 * nothing sent. A redirect is an answer and not followed, the environment's proxies are not used. headers: lines
 * "Name: value" with one byte 0xA7 between two of them (within a UTF-8 sequence that byte is text); null: none. A CR or
 * LF in it makes the request fail with nothing sent, and so does a name that is no token. Blanks before the colon are
 * left out. A line without a name and a colon is passed over, and so are Content-Length, Transfer-Encoding and Expect.
 * Two names are directions that are obeyed and not sent, the first of each:
 *   X-oxEvent-TLS-Verify: 0             accepts any certificate, which otherwise must be the host's by the system's
 *                                       certificates
 *   X-oxEvent-Connect-Timeout-Ms: 2000  limits name lookup, connection and TLS together
 * body: body_length bytes; null, with a length of 0, for none.
 *
 * status and response may be null. *status receives the answer's status, 0 without an answer. *response receives the
 * answer's text, of any status, cut to 64 KiB (the rest is not read), NUL-terminated, for OXFree; null without one.
 *
 * Connections are kept for the next request to the same place, of any thread; one that turns out to be closed before
 * any byte of an answer is the one case in which a request is sent again. Raises no signal. At most 16 names are looked
 * up at a time; requests for one host share its lookup, and begin another when it has hung for 30 s, or longer while
 * many hang. Once the process runs its exit handlers, https fails at once; they wait for the https requests under way.
 * A fork's child makes connections of its own. Every request fails in a process with rights that its caller lacks
 * (AT_SECURE) while the environment holds SSLKEYLOGFILE or OPENSSL_ia32cap (and its like for other processors).
 */
OXUTIL_API int32_t oxOSHTTPCommand(const char* url, const char* method, const char* headers, const char* body,
                                   int32_t body_length, char** response, int32_t* status, uint32_t timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
