#include "app/desktop/desktopshell.h"

#include <QtGlobal>

// The entry the `lofthaven` executable looks up after loading this module: the window and its
// GUI libraries load only when a window is wanted, so the command line starts without them.
extern "C" Q_DECL_EXPORT int lofthaven_run_window(int *argc, char **argv)
{
    return lofthaven::runDesktop(*argc, argv);
}
