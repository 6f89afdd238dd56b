// An open file descriptor that is closed when its holder goes out of scope.
#ifndef QUARRYD_BASE_DESCRIPTOR_H
#define QUARRYD_BASE_DESCRIPTOR_H

// Takes over a descriptor as open() returned it; a negative one means that the open failed (errno
// is left as it was). Not copyable: one holder, one close.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd)
    {
    }
    ~Descriptor();
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    bool IsOpen() const
    {
        return fd_ >= 0;
    }
    int Get() const
    {
        return fd_;
    }

private:
    int fd_;
};

#endif
