#pragma once

#include <deque>
#include <stdexcept>
#include <utility>

// First-in, first-out operations on a deque, unlocked.

namespace dravinel {

template <typename T> void enqueue(std::deque<T>& queue, T value)
{
    queue.push_back(std::move(value));
}

// Like an indexed access to element 0, this fails loudly on an empty queue.
template <typename T> T dequeue(std::deque<T>& queue)
{
    if (queue.empty())
        throw std::out_of_range("dequeue on an empty queue");
    T value = std::move(queue.front());
    queue.pop_front();
    return value;
}

} // namespace dravinel
