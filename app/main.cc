// kerrow-native-messaging-host: the process that a browser starts for the Kerrow extension.
#include <malloc.h>

#include "app/app_delegate.h"
#include "platform/application.h"

int main(int argc, char** argv) {
    // Frame bodies up to a few MiB come from the heap and stay there for the next frame. By
    // default glibc maps each large body afresh and returns the reader thread's memory to the
    // kernel after every frame, so a 1 MiB frame cost hundreds of page faults. The heap keeps at
    // most the trim threshold of free memory.
    mallopt(M_MMAP_THRESHOLD, 4 * 1024 * 1024);
    mallopt(M_TRIM_THRESHOLD, 8 * 1024 * 1024);

    // The application does not own its delegate; this one lives as long as the process.
    static kerrow::AppDelegate appDelegate;
    kerrow::Application::shared().setDelegate(&appDelegate);
    return kerrow::applicationMain(argc, argv);
}
