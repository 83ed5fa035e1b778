// Stand-in for the support library's path texts: a copy of a path whose
// last component can be taken and whose extension can be cut.
#ifndef VARN_HOST_ASTR_STRING_H_
#define VARN_HOST_ASTR_STRING_H_

namespace varn::host {

// A copy of text on the heap (null text: ""), released with
// astr_free_string; null when memory is short.
char* astr_new_string(const char* text);
void astr_free_string(char* text);
// The last component of a path inside the text: what follows its last "/",
// "\" or drive colon.
char* astr_get_leaf_name(char* path);
// Cuts the extension of the path's last component: from its last "." on,
// unless that dot is the component's first character.
void astr_remove_extent(char* path);

}  // namespace varn::host

#endif  // VARN_HOST_ASTR_STRING_H_
