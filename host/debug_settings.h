// Stand-in for the support library's debug-topic switch.
#ifndef VARN_HOST_DEBUG_SETTINGS_H_
#define VARN_HOST_DEBUG_SETTINGS_H_

namespace varn::host {

// True when the environment variable `variable` names `topic` or
// `all_word` among its words (separated by blanks, commas, colons or
// semicolons). `flags` is reserved and must be 0.
bool is_debug_mode_active_for(const char* variable, const char* topic, const char* all_word,
                              int flags);

}  // namespace varn::host

#endif  // VARN_HOST_DEBUG_SETTINGS_H_
