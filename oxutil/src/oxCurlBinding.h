#pragma once

// Returns whether the libcurl functions that the HTTP client is bound to belong together. A host that exports libcurl
// functions replaces those of the shared library. A complete other build works, because libcurl keeps its binary
// interface, if it is not too old. Functions of two builds would misread each other's handles. Threads: any.
bool oxCurlIsUsable();
