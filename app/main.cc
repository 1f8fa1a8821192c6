// kerrow-native-messaging-host: the process that a browser starts for the Kerrow extension.
#include "app/app_delegate.h"
#include "platform/application.h"

int main(int argc, char** argv) {
    // The application does not own its delegate; this one lives as long as the process.
    static kerrow::AppDelegate appDelegate;
    kerrow::Application::shared().setDelegate(&appDelegate);
    return kerrow::applicationMain(argc, argv);
}
