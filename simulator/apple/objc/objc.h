#pragma once

typedef struct objc_class* Class;
struct objc_object {
    Class isa;
};
typedef struct objc_object* id;
typedef struct objc_selector* SEL;

// As the platform has it: the two architectures differ.
#if defined(__aarch64__)
typedef bool BOOL;
#else
typedef signed char BOOL;
#endif
