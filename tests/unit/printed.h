// What a program prints, caught.
#ifndef QUARRYD_UNIT_PRINTED_H
#define QUARRYD_UNIT_PRINTED_H

#include <cstdio>
#include <string>

// What is written to a standard stream while the object lives, from children too.
class Printed {
public:
    explicit Printed(FILE *stream);
    ~Printed();
    Printed(const Printed &) = delete;
    Printed &operator=(const Printed &) = delete;

    // What was printed since the last call.
    std::string Take();

private:
    FILE *stream_;
    int saved_fd_;
    int memory_fd_;
};

#endif
