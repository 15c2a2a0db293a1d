#include "velka/Assert.h"

#include <cstdio>
#include <cstdlib>

#include "LogLine.h"

namespace velka {

void assertFail(const char* expr, const char* file, unsigned int line, const char* function) {
    logFlush();  // the lines before the failure reach their destination first
    fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, expr);
    fflush(stderr);
    abort();
}

}  // namespace velka
