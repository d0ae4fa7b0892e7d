// The GTK tests' main: GTK is initialised once, on this thread, which stays
// the GTK thread; tests iterate the default main context from it.
#include <cstdio>

#include <gtest/gtest.h>
#include <gtk/gtk.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!gtk_init_check()) {
        std::fprintf(stderr, "GTK cannot open a display: run under tests/support/with-xvfb.sh\n");
        return 1;
    }
    return RUN_ALL_TESTS();
}
