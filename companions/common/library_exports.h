// What the companion libraries that hand out classes (QvAppServices, SectionLoader, QvMergeModules) have in
// common: DllMain, DllCanUnloadNow and DllGetClassObject, in library_exports.cpp, over the table of classes
// each library defines.
#pragma once

#include "inc/com_object.h"

#include <span>

namespace companion {

// The classes the library hands out through DllGetClassObject, with no registration.
std::span<const qv::library_class> LibraryClasses();

} // namespace companion
