#include "AppWiring.h"

#include "AppDelegate.h"

namespace ostv {

void wireApplication(AppDelegate& delegate) {
    (void)delegate;  // the workspace and the relay link are attached here as they land
}

}  // namespace ostv
