#include "com_kelvane_media_FreedMemory.h"

#include <cstdlib>

#ifdef __GLIBC__
#include <malloc.h>
#endif

JNIEXPORT jboolean JNICALL Java_com_kelvane_media_FreedMemory_giveBack(JNIEnv*, jclass) {
#ifdef __GLIBC__
    return malloc_trim(0) != 0;
#else
    return JNI_FALSE; // other C libraries are not known to keep it
#endif
}
