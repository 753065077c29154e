// Owners of blocks that come from malloc.
#pragma once

#include <cstdlib>
#include <memory>

struct free_block {
    void operator()(void *block) const { std::free(block); }
};

template<class T>
using owned_block = std::unique_ptr<T, free_block>;
