#pragma once

// The entry points' part in what oxEventProcess.cpp does at a fork and at unload.
void oxEventApiForgetInChild();
void oxEventApiClose();
