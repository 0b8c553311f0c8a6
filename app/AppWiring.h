#pragma once
namespace ostv {
class AppDelegate;
// Connects the application shell to the workspace and the relay link.
void wireApplication(AppDelegate& delegate);
}  // namespace ostv
