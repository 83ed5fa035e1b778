// Stand-ins for the support library's environment and settings lookups.
//
// A settings environment has a name ("dravo", "dravohelp", ...) and is kept
// in the file ".NAME" of the settings directory: the directory named by the
// environment variable DRAVO_SETTINGS_DIR, else the home directory (HOME).
// The file holds one setting a line, "KEY=VALUE" or "KEY VALUE"; blanks
// around the key and the value are dropped, a value in double quotes loses
// them, and blank lines and lines starting with "#" are skipped. Where a
// key appears twice the first line counts.
//
// An environment variable of the setting's name wins over the file, so a
// single run can change a setting without touching the file: with
// USE_DATASET_SERVER=Y in the environment, the environment "dravo" answers
// Y for that key whatever its file says. An environment whose file does
// not exist can still be made current (every key then comes from the
// environment variables or is missing), but gui_env_open refuses it.
//
// The calls have C linkage, as in the real library, and are hidden: they
// are not part of libvarn's interface. They may be called from any thread.
#ifndef VARN_HOST_SETTINGS_H_
#define VARN_HOST_SETTINGS_H_

extern "C" {

// getenv: the value of the variable, or null when it is not set.
const char* gsl_getenv(const char* name) noexcept;

// The settings of one environment, opened by gui_env_open.
struct GuiEnv;

// Finds the settings directory; 1 when there is one, 0 when neither
// DRAVO_SETTINGS_DIR nor HOME is set.
int gui_env_init(void) noexcept;
// Reads the settings of the environment `name`; null when its file cannot
// be read or the settings directory is unknown. flags is reserved (0).
GuiEnv* gui_env_open(const char* name, int flags) noexcept;
// Copies the value of key (cut to size - 1 bytes) into value and returns 1;
// when the key has no value, copies default_value (null: an empty text)
// and returns 0. flags is reserved (0).
int gui_env_get(GuiEnv* env, const char* key, char* value, const char* default_value, int size,
                int flags) noexcept;
void gui_env_close(GuiEnv* env) noexcept;

// The name of the current settings environment, or null when none is
// current. The text stays valid until the current environment changes.
const char* astr_get_environment(void) noexcept;
// Makes the environment `name` current; 1, or 0 for a null or empty name.
int astr_set_environment(const char* name) noexcept;
// The value of key in the current environment, cut to size - 1 bytes; 1
// when it has one, else 0 with an empty text.
int astr_environment_string(const char* key, char* value, int size) noexcept;
// Leaves the current environment: none is current afterwards.
void astr_close_environment(void) noexcept;

// The value of a setting of the host application: the environment
// variable of that name, else the key in the current environment. Copies
// it (cut to size - 1 bytes) into value, stores its length and returns it;
// -1 (an empty text) when the setting has no value. flags is reserved (0).
int gui_env_get_ko(const char* key, char* value, int* length, int size, int flags) noexcept;

}  // extern "C"

#endif  // VARN_HOST_SETTINGS_H_
