// What named sections, semaphores and events have in common.
//
// A name is any sequence of bytes but the empty one; two names are the same object only if all
// their bytes are equal. Sections, semaphores and events have separate name spaces. An object
// outlives the processes that use it, until somebody removes it or the machine restarts; what a
// process still has open stays usable to it.
#pragma once

namespace kvl {

// Who shares an object. Each audience is a name space of its own.
enum class EAudience {
  kOwner,        // the processes of this user
  kGroup,        // the members of this process's group
  kEveryone,     // every user of the machine; any of them can also disturb the object
  kThisProcess,  // this process and its children; gone when they end
};

enum class EOpenMode {
  kOpenOrCreate,
  kOpenExisting,
};

}  // namespace kvl
