#pragma once

#include <objc/objc.h>

extern "C" {

Class objc_getClass(const char* name);  // null for a class that is not loaded
Class object_getClass(id object);
SEL sel_registerName(const char* name);
BOOL class_respondsToSelector(Class type, SEL selector);

}  // extern "C"
