// Owner counts of things that shallow copies share (a medium's side-data
// blocks, a scene's take list and loaded take, a story board's lists), and
// the register of live objects that the flat interface checks pointers
// against.
//
// The media and story classes copy these pointers as they are: a copy and
// its source hold the same block, list or object. Each holder counts: a
// holder that lets go frees the thing only when it was the last, so the
// copies may be destroyed in any order and each thing is freed once. The
// count lives in a table beside the thing, not in it, because the pointer is
// all that the copies share.
//
// Nothing here throws. Single-threaded, as the whole library is.
#ifndef KAVO_LARKDB_SHAREDOWNERS_H
#define KAVO_LARKDB_SHAREDOWNERS_H

namespace kavo {

// One more holder of thing (null is ignored). False when the table could
// not take it, for want of memory: the would-be holder must then do without.
bool AddOwner(const void* thing);
// A holder lets go of thing: true when it was the last (or only) holder and
// must free it.
bool DropOwner(const void* thing);

// The objects of one kind (media, scenes, story boards) alive now.
class TLiveRegister {
public:
    // False when the register could not take the object (want of memory).
    bool Add(const void* object);
    void Remove(const void* object);
    bool Contains(const void* object) const;

private:
    void* fObjects = nullptr;  // an unordered set, made on first use
};

}  // namespace kavo

#endif  // KAVO_LARKDB_SHAREDOWNERS_H
