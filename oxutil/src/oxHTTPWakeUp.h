#pragma once

#include <curl/curl.h>

// curl_multi_init, with the pair of sockets that libcurl makes for curl_multi_wakeup close-on-exec, which libcurl
// leaves out. Null without memory.
CURLM* oxHTTPMultiInit();
