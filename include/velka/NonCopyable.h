#ifndef VELKA_NONCOPYABLE_H
#define VELKA_NONCOPYABLE_H

namespace velka {

// Empty base that forbids copying of every class derived from it.
class NonCopyable {
protected:
    NonCopyable() = default;
    ~NonCopyable() = default;

public:
    NonCopyable(const NonCopyable&) = delete;
    NonCopyable& operator=(const NonCopyable&) = delete;
};

}  // namespace velka

#endif  // VELKA_NONCOPYABLE_H
