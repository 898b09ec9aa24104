/* The shared library reports the version its header declares, and the build
 * system's project version is the same. */
#include <stdio.h>
#include <string.h>

#include "kvxpx.h"

#define STR2(x) #x
#define STR(x) STR2(x)

int main(void) {
    QXLibraryInfo info;
    const char* numbers = STR(KVXPX_VERSION_MAJOR) "." STR(KVXPX_VERSION_MINOR) "." STR(KVXPX_VERSION_PATCH);
    int bad = 0;
    QXGetLibraryInfo(&info);
    if (info.version != KVXPX_VERSION_MAJOR || info.release != KVXPX_VERSION_MINOR || info.build != KVXPX_VERSION_PATCH) {
        printf("library reports %d.%d.%d, header declares %s\n", info.version, info.release, info.build, numbers);
        bad = 1;
    }
    if (strcmp(KVXPX_VERSION_STRING, numbers) != 0) {
        printf("KVXPX_VERSION_STRING \"%s\" differs from the numbers %s\n", KVXPX_VERSION_STRING, numbers);
        bad = 1;
    }
    if (strcmp(KVX_PROJECT_VERSION, numbers) != 0) {
        printf("project version %s differs from the header's %s\n", KVX_PROJECT_VERSION, numbers);
        bad = 1;
    }
    if (!bad)
        printf("version %s\n", KVXPX_VERSION_STRING);
    return bad;
}
