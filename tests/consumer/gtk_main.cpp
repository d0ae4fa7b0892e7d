// A GTK host's first steps with the installed GTK library: the library's main
// queue on the default GLib main context, tasks run in deadline then posting
// order while the context is iterated.
#include <PlenkKitGtk/PlenkKitGtk.h>

#include <chrono>
#include <cstdio>
#include <string>

int main() {
    auto queue = plenk::gtk::GLibMainQueue::create();
    std::string order;
    queue->postAfter(std::chrono::milliseconds(20), [&] { order += 'c'; });
    queue->post([&] { order += 'a'; });
    queue->post([&] { order += 'b'; });
    while (order.size() < 3) g_main_context_iteration(nullptr, TRUE);
    std::printf("glib queue %s\n", order.c_str());
}
