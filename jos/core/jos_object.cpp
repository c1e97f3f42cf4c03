// Object classes and object-change notifiers, kept newest first.
#include "jos_object.h"

#include <cstring>

static jos_objclass_t* _objclass_head;
static jos_objnotify_t* _objnotify_head;

// The two lists share their load/unload logic.
template <typename T>
static int objlist_load(T*& head, T* item)
{
    for (T* p = head; p != nullptr; p = p->next)
        if (p == item)
            return -1;
    item->next = head;
    head = item;
    return 0;
}

template <typename T>
static int objlist_unload(T*& head, T* item)
{
    for (T** pp = &head; *pp != nullptr; pp = &(*pp)->next) {
        if (*pp == item) {
            *pp = item->next;
            item->next = nullptr;
            return 0;
        }
    }
    return -1;
}

int objclass_load(jos_objclass_t* c)
{
    return objlist_load(_objclass_head, c);
}

int objclass_unload(jos_objclass_t* c)
{
    return objlist_unload(_objclass_head, c);
}

jos_objclass_t* object_findclass(const char* name)
{
    for (jos_objclass_t* c = _objclass_head; c != nullptr; c = c->next)
        if (std::strcmp(c->name, name) == 0)
            return c;
    return nullptr;
}

int objnotify_load(jos_objnotify_t* n)
{
    return objlist_load(_objnotify_head, n);
}

int objnotify_unload(jos_objnotify_t* n)
{
    return objlist_unload(_objnotify_head, n);
}

void object_notify(const char* cls, uint32_t a, uint32_t b)
{
    for (jos_objnotify_t* n = _objnotify_head; n != nullptr; n = n->next)
        if (std::strcmp(n->notifyclass, cls) == 0)
            n->objnotifyfn(a, b);
}
