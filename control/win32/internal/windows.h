// The Windows headers the Win32 backend and the COM module use, with the
// A/W macros that would rename the platform interface's members undone.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// windows.h must come first.
#include <objbase.h>
#include <wincrypt.h>

#undef DeleteFile
#undef GetSystemDirectory
#undef ExpandEnvironmentStrings
