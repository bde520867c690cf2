#pragma once

#include <cstdint>
#include <string_view>

// The calling thread's last error text. A thread has one from a failure to its next success, so that success costs no
// more than a look. Kept under a pthread key: a thread_local with a destructor would keep the library loaded until its
// thread ends.

// Replaces the text. Without memory for it the text becomes empty. Does not throw.
void oxEventSetLastError(std::string_view text);
void oxEventClearLastError();

// Copies the text, cut to buffer_size - 1 bytes and terminated; empty when there is none.
void oxEventCopyLastError(char* buffer, uint32_t buffer_size);

// At unload (frees the texts of all threads; from then on there is none) and in a fork's child.
void oxEventLastErrorUnload();
void oxEventLastErrorForgetInChild();
