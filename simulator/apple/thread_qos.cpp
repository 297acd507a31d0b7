#include <pthread.h>
#include <pthread/qos.h>

// The host's scheduler has no such classes; the request is a hint on macOS as well.
int pthread_set_qos_class_self_np(qos_class_t, int) {
    return 0;
}

int pthread_setname_np(const char* name) {
    return pthread_setname_np(pthread_self(), name);
}
