#pragma once

// Called by oxEventProcess.cpp.
void oxEventApiResetAfterFork();  // In the child of a fork.
void oxEventApiClose();           // At unload and process exit.
