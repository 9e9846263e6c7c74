/* The collector's settings, which are made once in a process, made anew for every input. */
#ifndef TAVLEN_FUZZ_SETTINGS_H
#define TAVLEN_FUZZ_SETTINGS_H
#include "fuzz.h"
#include <TavlenLogger/config.h>

inline std::string value_of(const cfg_entry &e)
{
    return e.type == CFG_INT ? std::to_string(*static_cast<int32_t *>(e.target)) : *static_cast<char **>(e.target);
}

struct Settings {
    Settings() { HOLDS(config_init() == 0); }
    Settings(const Settings &) = delete;
    ~Settings()
    {
        for (const cfg_entry &e : *this) {
            e.type == CFG_STRING ? free(*static_cast<char **>(e.target)) : void();
        }
        free(config_e);
        config_e = nullptr;
    }
    cfg_entry *begin() const { return config_e; }
    cfg_entry *end() const { return config_e + 6; }
};
#endif
