#pragma once

#include <cstdint>
#include <string_view>

// The calling thread's last error text. A thread has a text only between a failure and its next success, so that each
// further success costs a single check. Stored under a pthread key: a thread_local object with a destructor would keep
// the library loaded until its thread exits.

// Sets the text. If out of memory, the text becomes empty. Does not throw.
void oxEventSetLastError(std::string_view text);
void oxEventClearLastError();

// Copies the text, truncated to buffer_size - 1 bytes and NUL-terminated; an empty string if there is none.
void oxEventCopyLastError(char* buffer, uint32_t buffer_size);

// Frees the texts of all threads; later texts are discarded.
void oxEventLastErrorUnload();
// In the child of a fork: abandons the texts of all threads.
void oxEventLastErrorResetAfterFork();
