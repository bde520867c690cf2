/*
 * oxutil: the companion library of oxEvent: settings store, directories, clocks, HTTP.
 *
 * Plain C; no exception escapes. Functions that return a result code return 0 for success. A store handle must be used
 * by one thread at a time; all other functions may be called from any thread. Strings are NUL-terminated bytes, passed
 * on without conversion.
 *
 * The settings store is a tree of keys with string values, kept in an XML file:
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
 * A key path joins names with one backslash ("A\B"). Names are compared byte by byte; of equal names the first counts.
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

/* Result of oxCFGGetNext at the end. */
#define OXCFG_NO_MORE 0xFFFFFFFFu

/*
 * Opens the store in an existing file; flags must be 0. An empty file is an empty store. Returns null if the file is
 * missing, unreadable, not a regular file, over 64 MiB, not such an XML file, or one that a save could not write back
 * unchanged: with a control byte, a reference to a character that XML forbids (&#0;, &#1;), or a comment with "--"
 * inside. A refused file is never changed. oxCFGClose frees the handle.
 */
OXUTIL_API void* oxCFGOpen(const char* path, uint32_t flags);

/* Returns non-zero if the key exists. */
OXUTIL_API uint32_t oxCFGKeyExists(void* store, const char* key);

/*
 * Creates the key `name` below `parent`, and the missing keys of the path `parent`; with an empty `name`, `parent`
 * itself. An existing key is left as it is. Keys have no string of their own: `value` is ignored.
 */
OXUTIL_API uint32_t oxCFGAddKeyString(void* store, const char* parent, const char* name, const char* value,
                                      uint32_t reserved1, uint32_t reserved2);

/*
 * Iterates over the sub-keys and values of a key in file order. Writes the name that follows `previous_name` (empty:
 * the first) to `result_name`, a buffer of 512 bytes, and 0 for a sub-key or 1 for a value to `kind`. Returns
 * OXCFG_NO_MORE at the end. Skips names that no path can contain (empty, over 511 bytes, with a backslash).
 */
OXUTIL_API uint32_t oxCFGGetNext(void* store, const char* key, char* result_name, const char* previous_name,
                                 uint32_t* kind);

/*
 * Mode 0 gets, mode 1 sets a number. A get ignores white space (space, tab, CR, LF) around the number, and fails unless
 * the rest is a decimal number from 0 to 4294967295. A set fails if the key is missing.
 */
OXUTIL_API uint32_t oxCFGValueDword(void* store, const char* key, const char* name, uint32_t* value, uint32_t mode);

/*
 * Mode 0 gets a string: *length is the size of the buffer on entry, and on return the number of bytes written without
 * the terminating NUL; a longer string is truncated. Mode 1 sets the value to the first *length bytes of the buffer. A
 * set fails if the key is missing, or if the bytes contain a control byte other than tab, CR and LF, which XML forbids.
 */
OXUTIL_API uint32_t oxCFGValueString(void* store, const char* key, const char* name, char* buffer, uint32_t* length,
                                     uint32_t mode);

/*
 * Writes a changed store back: to a new file beside it, which is synced and then renamed over it (over the target of a
 * symbolic link), so that the file is complete at any moment, old or new. Preserves owner, group, mode and the extended
 * attributes that the process can see, and comments and elements that do not belong to the store. Fails, and leaves the
 * file as it was, if any of this is impossible, if the file has been changed other than through this handle since it
 * was opened, if memory ran out in any call for this handle, or if the file has the attribute security.ima or
 * security.evm, which vouch for its bytes. Also fails if the directory cannot be synced after the rename. `reserved`
 * and `mode` are ignored.
 */
OXUTIL_API uint32_t oxCFGSave(void* store, uint32_t reserved, uint32_t mode);

/* Frees the handle without saving. `mode` is ignored. */
OXUTIL_API uint32_t oxCFGClose(void* store, uint32_t mode);

/* Frees a buffer that this library returned, or null. */
OXUTIL_API void OXFree(void* buffer);

/* Returns non-zero if the path is a directory. */
OXUTIL_API int32_t oxOSFileIsDir(const char* path);

/* Creates one directory with the given permission bits, less the umask of the process. Returns 0 for success. */
OXUTIL_API int32_t oxOSMakeDir(const char* path, uint32_t permissions);

/* Returns UTC in nanoseconds since 1970-01-01 (CLOCK_REALTIME, which PTP disciplines where it is in use). */
OXUTIL_API uint64_t oxOSGetTimePTPNano(void);

/* Returns the milliseconds of CLOCK_MONOTONIC, modulo 2^32. */
OXUTIL_API uint32_t oxOSGetMs(void);

/*
 * Sends one HTTP/1.1 request (RFC 9110, 9112) over http or https and waits for the complete response, at most
 * timeout_ms milliseconds for name lookup, connection, TLS and all stalls together; 0 fails immediately. Returns
 * non-zero if a response with a 2xx status was received.
 *
 * url, method: as for any HTTP client. If the method is not a token (RFC 9110, section 5.6.2), the request fails and
 * nothing is sent. A redirect is returned, not followed. Proxies from the environment are ignored.
 * headers: lines "Name: value", separated by one byte 0xA7 (within a UTF-8 sequence that byte is text); null: none. If
 * it contains a CR or LF, or a name that is not a token, the request fails and nothing is sent. Blanks before the colon
 * are removed. Lines without a name or a colon are ignored, and so are Content-Length, Transfer-Encoding and Expect.
 * Two names are directives, which are obeyed and not sent, the first of each: X-oxEvent-TLS-Verify: 0 accepts any
 * certificate; otherwise it must be valid for the host and issued by an authority that the system trusts
 *   X-oxEvent-Connect-Timeout-Ms: 2000  limits name lookup, connection and TLS together
 * body: body_length bytes; null, with a length of 0, for none.
 *
 * status and response may be null. *status receives the status of the response, 0 without a response. *response
 * receives the body, whatever the status, truncated to 64 KiB (the rest is not read) and NUL-terminated, for OXFree;
 * null without a response.
 *
 * Connections are kept for later requests to the same scheme, host and port, from any thread. A request is repeated in
 * one case only: a kept connection turns out to be closed before any byte of the response. Raises no signal. At most 16
 * names are looked up at a time; requests for one host share its lookup, and start another when it has hung for 30 s,
 * or longer while many hang. Once the process runs its exit handlers, https fails immediately; the handlers wait for
 * the https requests in progress. The child of a fork opens its own connections. In a process with privileges that its
 * caller lacks (AT_SECURE), every request fails while the environment contains SSLKEYLOGFILE or OPENSSL_ia32cap (or its
 * equivalent for other processors).
 */
OXUTIL_API int32_t oxOSHTTPCommand(const char* url, const char* method, const char* headers, const char* body,
                                   int32_t body_length, char** response, int32_t* status, uint32_t timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
