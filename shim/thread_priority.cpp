#include <pthread.h>
#include <pthread/qos.h>

#include "shim/fv.h"

void fv_use_utility_priority(void) {
    // A wish, not a need: a watchdog that is refused the class runs at the ordinary one.
    pthread_set_qos_class_self_np(QOS_CLASS_UTILITY, 0);
}

void fv_name_thread(const char* name) {
    pthread_setname_np(name);
}
