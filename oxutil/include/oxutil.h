/*
 * oxutil, the companion library of oxEvent: settings store, directories, clocks, HTTP.
 *
 * Plain C; no exception escapes. Functions that return a result code return 0 for success. Only one thread at a time
 * may use a store handle; the functions without a handle may be called from any thread. Strings end with a NUL unless a
 * length is passed with them; their encoding is not converted.
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
 * A key path joins names with one backslash ("A\B"). Empty names in a path are skipped, so the empty path is the
 * element config. Names are compared byte by byte. If two sub-keys or two values of a key have the same name, only the
 * first is used. A name is valid if it has 1 to 511 bytes, none of them a backslash or a control byte that XML forbids.
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

/* Result of oxCFGGetNext if there is no further name. */
#define OXCFG_NO_MORE 0xFFFFFFFFu

/*
 * Opens the store in an existing file; flags must be 0. An empty file is an empty store. Returns null if the file is
 * missing, unreadable, not a regular file, larger than 64 MiB or not an XML file in the above format, or if a save
 * could not write it back unchanged because it contains a control byte, a reference to a character that XML forbids
 * (&#0;, &#1;), or a comment with "--" inside or "-" at its end. Also returns null if the file declares entities,
 * nests elements more than 64 deep or has too many tags for its size, or if memory runs out. Opening never changes the
 * file. oxCFGClose frees the handle.
 */
OXUTIL_API void* oxCFGOpen(const char* path, uint32_t flags);

/* Returns non-zero if the key exists. */
OXUTIL_API uint32_t oxCFGKeyExists(void* store, const char* key);

/*
 * Creates the key `name` below the key path `parent`, and the keys of that path that are missing. If `name` is empty,
 * creates only the path. Existing keys are left as they are. Fails if a name is not valid, or if a value of the new key
 * would be nested more than 64 elements deep. `value` is ignored, because keys have no string.
 */
OXUTIL_API uint32_t oxCFGAddKeyString(void* store, const char* parent, const char* name, const char* value,
                                      uint32_t reserved1, uint32_t reserved2);

/*
 * Iterates over the sub-keys and values of a key in file order. Writes the name after `previous_name`, or the first
 * name if `previous_name` is empty, to `result_name`, a buffer of 512 bytes. Sets *kind to 0 for a sub-key, 1 for a
 * value. Returns OXCFG_NO_MORE after the last name, and if the key or `previous_name` does not exist. Skips names that
 * are not valid.
 */
OXUTIL_API uint32_t oxCFGGetNext(void* store, const char* key, char* result_name, const char* previous_name,
                                 uint32_t* kind);

/*
 * Mode 0 gets a number, mode 1 sets it. A get ignores white space (space, tab, CR, LF) around the number, and fails
 * unless the rest is a decimal number from 0 to 4294967295. A set adds the value if it is missing, and fails if the key
 * is missing or the name is not valid.
 */
OXUTIL_API uint32_t oxCFGValueDword(void* store, const char* key, const char* name, uint32_t* value, uint32_t mode);

/*
 * Mode 0 gets a string: *length is the size of the buffer on entry, at least 1, and on return the number of bytes
 * written without the terminating NUL; a string that does not fit is truncated. Mode 1 sets the value to the first
 * *length bytes of the buffer. A set adds the value if it is missing, and fails if the key is missing, if the name is
 * not valid, or if the bytes contain a control byte that XML forbids: any but tab, CR and LF.
 */
OXUTIL_API uint32_t oxCFGValueString(void* store, const char* key, const char* name, char* buffer, uint32_t* length,
                                     uint32_t mode);

/*
 * Writes the store back if it has changed: writes a new file in the same directory, syncs it and renames it over the
 * old file (if the path is a symbolic link, over its target), so that readers find the old or the new file, always
 * complete. Preserves owner, group, mode and the extended attributes that the process can see, and comments and
 * elements that do not belong to the store. Fails, and leaves the file as it was, if any of this is impossible, if the
 * new file would be larger than 64 MiB, if the file is write-protected, if anyone else has changed it since this handle
 * opened or saved it, if memory ran out in any call for this handle, or if the file has the attribute security.ima or
 * security.evm, which authenticates its content. Also fails if the directory cannot be synced after the rename; the
 * file is the new one in that case. `reserved` and `mode` are ignored.
 */
OXUTIL_API uint32_t oxCFGSave(void* store, uint32_t reserved, uint32_t mode);

/* Frees the handle without saving. `mode` is ignored. */
OXUTIL_API uint32_t oxCFGClose(void* store, uint32_t mode);

/* Frees a buffer that this library returned; `buffer` may be null. */
OXUTIL_API void OXFree(void* buffer);

/* Returns non-zero if the path is a directory. */
OXUTIL_API int32_t oxOSFileIsDir(const char* path);

/* Creates one directory with the given permission bits, less the umask of the process. Returns 0 for success. */
OXUTIL_API int32_t oxOSMakeDir(const char* path, uint32_t permissions);

/* Returns UTC in nanoseconds since 1970-01-01 (CLOCK_REALTIME, which a PTP client disciplines if one runs). */
OXUTIL_API uint64_t oxOSGetTimePTPNano(void);

/* Returns the milliseconds of CLOCK_MONOTONIC, modulo 2^32. */
OXUTIL_API uint32_t oxOSGetMs(void);

/*
 * Sends one HTTP/1.1 request (RFC 9110, 9112) over http or https and waits at most timeout_ms milliseconds for the
 * complete response, including name lookup, connection and TLS handshake; with a timeout of 0, the request fails.
 * Returns non-zero if a response with a 2xx status was received.
 *
 * method: If it is not a token (RFC 9110, section 5.6.2), the request fails and nothing is sent.
 * headers: Lines "Name: value", separated by a byte 0xA7 that is not part of a UTF-8 sequence; null means no lines. If
 * the string contains a CR or LF, or a name that is not a token, the request fails and nothing is sent. Spaces and tabs
 * before the colon are removed. Lines without a name or a colon are ignored, and so are Content-Length,
 * Transfer-Encoding and Expect. Two names are options of this function and are not sent; the first line of each counts:
 *   X-oxEvent-TLS-Verify: 0             accepts any certificate; with any other value or without this line, the
 *                                       certificate must be valid for the host and issued by a trusted authority
 *   X-oxEvent-Connect-Timeout-Ms: 2000  limits name lookup, connection and TLS handshake together
 * body: body_length bytes. For a request without a body, pass null and 0.
 * status, response: May be null. *status receives the status code, or 0 if there was no response, or an incomplete or
 * invalid one, such as one with more than 64 KiB of headers. *response receives the body, whatever the status,
 * NUL-terminated and truncated to 64 KiB, or null if *status is 0 or memory ran out; free it with OXFree. The rest of a
 * longer body is not read.
 *
 * Redirects are not followed. Proxy settings in the environment are ignored. The host receives no signal. Connections
 * are kept open for later requests to the same scheme, host and port, from any thread. A request is repeated in one
 * case only: if a kept connection turns out to be closed before any byte of the response has arrived (over https:
 * before a whole line of it has arrived). At most 16 lookups of host names run at a time. Requests for the same host
 * share a lookup; when it has hung for 30 s, or longer after retries or while many lookups hang, a waiting or later
 * request starts another. Once the process runs its exit handlers, https requests fail immediately, and an exit handler
 * of this library waits for those in progress. The child of a fork opens its own connections. In a process with
 * privileges that its caller lacks (AT_SECURE), the client does not start, and requests fail, while the environment
 * contains SSLKEYLOGFILE or OPENSSL_ia32cap (or its equivalent for other processors). The client is in a file of its
 * own, liboxutil-http.so; if that file cannot be loaded, requests fail with errno ELIBACC.
 */
OXUTIL_API int32_t oxOSHTTPCommand(const char* url, const char* method, const char* headers, const char* body,
                                   int32_t body_length, char** response, int32_t* status, uint32_t timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
