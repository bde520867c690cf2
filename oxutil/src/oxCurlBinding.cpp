#include "oxCurlBinding.h"

#include <curl/curl.h>
#include <dlfcn.h>

namespace {

constexpr unsigned kMinVersion = 0x074c00;  // 7.76.0, as at build time.

template <class Function>
const void* FileOf(Function* function) {
  Dl_info info;
  return dladdr(reinterpret_cast<const void*>(function), &info) != 0 ? info.dli_fbase : nullptr;
}

// Returns whether all functions are in the file of the first one.
template <class First, class... Others>
bool AreInOneFile(First* first, Others*... others) {
  return ((FileOf(others) == FileOf(first)) && ...);
}

}  // namespace

bool oxCurlIsUsable() {
  return AreInOneFile(curl_global_init, curl_easy_cleanup, curl_easy_getinfo, curl_easy_init, curl_easy_reset,
                      curl_easy_setopt, curl_free, curl_multi_add_handle, curl_multi_cleanup, curl_multi_info_read,
                      curl_multi_init, curl_multi_perform, curl_multi_poll, curl_multi_remove_handle, curl_multi_wakeup,
                      curl_slist_append, curl_slist_free_all, curl_url, curl_url_cleanup, curl_url_get, curl_url_set,
                      curl_version_info) &&
         curl_version_info(CURLVERSION_NOW)->version_num >= kMinVersion;
}
