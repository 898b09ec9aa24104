/* A first kvxpx program in plain C: identify the library and the processor,
 * then watch the error machinery stop a chain of calls. */
#include <stdio.h>

#include "kvxpx.h"

static int quiet_handler(int code, const char* functionName, const char* conditionText, const char* sourceFile,
                         int line) {
    printf("  reported %d (%s) by %s: \"%s\" at %s:%d\n", code, QXErrorStr(code), functionName,
           conditionText ? conditionText : "", sourceFile ? sourceFile : "", line);
    QXSetStatus(code);
    return code;
}

int main(void) {
    QXLibraryInfo lib;
    QXProcessorInfo cpu;
    float** table;
    int r, c;

    QXGetLibraryInfo(&lib);
    QXGetProcessorInfo(&cpu);
    printf("%s %d.%d.%d on %s\n", QXGetSpecificLibraryName(), lib.version, lib.release, lib.build, cpu.text);

    /* A 3 x 4 float table: one block, addressed as table[row][col]. */
    table = QXsAllocTable(3, 4);
    if (table == NULL)
        return 1;
    for (r = 0; r < 3; ++r)
        for (c = 0; c < 4; ++c)
            table[r][c] = (float)(r * 10 + c);
    printf("table[2][3] = %.1f\n", table[2][3]);
    QXsFreeTable(table);

    /* Errors go to the handler; the status word then stops later calls. */
    QXRedirectError(quiet_handler);
    if (QXsAlloc2(0, 4) != NULL)
        return 1;
    printf("status after the bad call: %d (%s)\n", QXGetStatus(), QXErrorStr(QXGetStatus()));
    table = QXsAlloc2(2, 2);
    printf("a release while the error is pending returns %d\n", QXsFree2(table, 2));
    QXSetStatus(0);
    printf("after QXSetStatus(0) it returns %d\n", QXsFree2(table, 2));
    return QXGetStatus() == 0 ? 0 : 1;
}
