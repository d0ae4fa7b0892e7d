#pragma once

// The GTK 4 side of PlenkKit: the main queue on GLib and the device picker as a
// window. Link PlenkKit::Gtk (pkg-config: plenkkit-gtk).
#include <PlenkKitGtk/GLibMainQueue.h>
#include <PlenkKitGtk/WindowPresenter.h>
