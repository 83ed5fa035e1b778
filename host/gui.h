// Stand-in for the support library's user-interface helpers.
#ifndef VARN_HOST_GUI_H_
#define VARN_HOST_GUI_H_

namespace varn::host {

// Changes the working directory; 1 on success, 0 on failure.
int gui_chdir(const char* directory);

}  // namespace varn::host

#endif  // VARN_HOST_GUI_H_
