// The driver of this process: the cards, the opens of their device files, and the commands.
#pragma once

#include "card.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace softnic {

// Boards are numbered from 0 in the order of the cards. All calls may come from any thread.
class Driver {
public:
    explicit Driver(std::vector<std::unique_ptr<Card>> cards) : cards_(std::move(cards)) {}
    ~Driver();

    unsigned boards() const { return static_cast<unsigned>(cards_.size()); }
    Card &card(unsigned board) { return *cards_[board]; }

    // Opens a board's device file: a descriptor number, or a negative errno value.
    int open(unsigned board, bool close_on_exec);

    // The number is one of open()'s and still means what it meant. Forgets it when it does not.
    bool owns(int fd);

    // The system calls on such a descriptor: -1 or MAP_FAILED, and errno, on failure.
    int ioctl(int fd, unsigned long command, void *arg);
    void *mmap(int fd, void *addr, size_t len, int prot, int flags, uint64_t offset);
    int close(int fd);

    // The application is about to unmap that, be it ours or not. False when it must stay.
    bool unmapping(const void *addr, size_t len);

    // Closes every open. Their numbers are closed as well, if they are still ours.
    void close_all();

    // In the child of a fork: the opens are the parent's, the cards start anew.
    void forget();

    // Asked before each command, and before each open with command 0: an errno value fails it.
    std::function<int(unsigned board, unsigned long command)> before_command;

    // Told of numbers that become or stop being ours.
    std::function<void(int fd, bool ours)> on_descriptor;

private:
    struct Open {
        std::shared_ptr<Handle> handle;
        Card *card = nullptr;
        unsigned board = 0;
    };

    Open find(int fd);
    void drop(int fd);
    int command(Open &open, unsigned long command, uint64_t arg);

    std::vector<std::unique_ptr<Card>> cards_;
    std::mutex mutex_; // guards opens_; a card's lock may be taken inside
    std::map<int, Open> opens_;
};

} // namespace softnic
