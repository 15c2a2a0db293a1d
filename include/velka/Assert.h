#ifndef VELKA_ASSERT_H
#define VELKA_ASSERT_H

// Assertions that stay on in every build type. A failed one prints the
// expression text the way the C library's assert does and stops the process.

namespace velka {
[[noreturn]] void assertFail(const char* expr, const char* file, unsigned int line,
                             const char* function);
}  // namespace velka

// The extra expansion step lets macros inside the expression (NULL) show their
// expansion in the message, as the C library's assert does.
#define VELKA_ASSERT_TEXT_(expr) #expr
#define VELKA_ASSERT_TEXT(expr) VELKA_ASSERT_TEXT_(expr)

#define VELKA_ASSERT(expr)                                                          \
    (static_cast<bool>(expr)                                                        \
         ? void(0)                                                                  \
         : ::velka::assertFail(VELKA_ASSERT_TEXT(expr), __FILE__, __LINE__, __func__))

#endif  // VELKA_ASSERT_H
