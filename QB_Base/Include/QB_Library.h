// QB_Library: loading a shared library at run time and finding its exports.
//
// A host uses this to run a module that it was not linked with. Paths are in
// the host system's form, as a build tool writes them.
#pragma once

#include <string>

using QB_LibraryHandle = void*;

// Null when the library can't be loaded; QB_GetLibraryError says why.
QB_LibraryHandle QB_LoadLibrary(const char* pszPath);
// The address of an exported function, or null for a missing name or a null
// handle.
void* QB_GetProcAddress(QB_LibraryHandle hLibrary, const char* pszName);
// False for a null handle or when the system refuses.
bool QB_FreeLibrary(QB_LibraryHandle hLibrary);
// The system's words for the last failure of the three calls above on this
// thread; empty when the last call succeeded.
std::string QB_GetLibraryError();
