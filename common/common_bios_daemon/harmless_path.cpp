#include "harmless_path.h"

#include <cstring>

bool is_harmless_path(const char *path)
{
    static constexpr char HARMLESS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@,=%";
    return path[0] != '\0' && path[0] != '-' && path[std::strspn(path, HARMLESS)] == '\0';
}
