#include "velka/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace velka {

void assertFail(const char* expr, const char* file, unsigned int line, const char* function) {
    fflush(stdout);
    fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, expr);
    fflush(stderr);
    abort();
}

}  // namespace velka
