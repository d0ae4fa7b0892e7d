// plenk-demo: a GTK 4 window on a Bluetooth coffee scale (see DemoApp).
#include "DemoApp.h"

int main(int argc, char** argv) {
    plenk::demo::DemoApp app;
    return app.run(argc, argv);
}
