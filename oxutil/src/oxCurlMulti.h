#pragma once

#include <curl/curl.h>

// Calls curl_multi_init and makes the sockets behind curl_multi_wakeup close-on-exec, which older versions of libcurl
// omit. Tries up to ten times: if another thread opens a descriptor during each try, the sockets stay inheritable.
// Returns null if memory runs out.
CURLM* oxCurlMultiInit();
