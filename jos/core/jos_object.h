// Registry of object classes and object-change notifiers.
#pragma once

#include "jos.h"

struct jos_objclass_t {
    const char* name;
    void* (*id2object)(uint32_t id);
    void* (*name2object)(const char* name);
    const char* (*objectname)(void* obj);
    jos_objclass_t* next;
};

struct jos_objnotify_t {
    const char* notifyclass;
    void (*objnotifyfn)(uint32_t a, uint32_t b);
    jos_objnotify_t* next;
};

int objclass_load(jos_objclass_t* c);
int objclass_unload(jos_objclass_t* c);
jos_objclass_t* object_findclass(const char* name);
int objnotify_load(jos_objnotify_t* n);
int objnotify_unload(jos_objnotify_t* n);
void object_notify(const char* cls, uint32_t a, uint32_t b);
