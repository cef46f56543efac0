#include "LarkDB/SharedOwners.h"

#include <unordered_map>
#include <unordered_set>

// The tables catch with catch (...): std::bad_alloc is the only exception
// they throw, and a catch by type inside the members of an exported class
// would export the type's information from the Windows DLL.

namespace kavo {
namespace {

using TObjectSet = std::unordered_set<const void*>;

// Holders beyond the first of each shared thing; a thing absent from the
// table has one holder.
std::unordered_map<const void*, unsigned long>* gExtraOwners = nullptr;

}  // namespace

bool AddOwner(const void* thing) {
    if (thing == nullptr) return true;
    try {
        if (gExtraOwners == nullptr) gExtraOwners = new std::unordered_map<const void*, unsigned long>;
        ++(*gExtraOwners)[thing];
        return true;
    } catch (...) {
        return false;
    }
}

bool DropOwner(const void* thing) {
    if (thing == nullptr) return false;
    if (gExtraOwners == nullptr) return true;
    const auto found = gExtraOwners->find(thing);
    if (found == gExtraOwners->end()) return true;
    if (--found->second == 0) gExtraOwners->erase(found);
    return false;
}

bool TLiveRegister::Add(const void* object) {
    try {
        if (fObjects == nullptr) fObjects = new TObjectSet;
        static_cast<TObjectSet*>(fObjects)->insert(object);
        return true;
    } catch (...) {
        return false;
    }
}

void TLiveRegister::Remove(const void* object) {
    if (fObjects != nullptr) static_cast<TObjectSet*>(fObjects)->erase(object);
}

bool TLiveRegister::Contains(const void* object) const {
    return object != nullptr && fObjects != nullptr && static_cast<TObjectSet*>(fObjects)->count(object) != 0;
}

}  // namespace kavo
