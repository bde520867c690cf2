#pragma once

// Called by oxEventProcess.cpp: in the child of a fork, and at unload and process exit.
void oxEventApiResetAfterFork();
void oxEventApiClose();
