// A program with a main loop, whose settings are plain variables: it never waits for the settings server, and takes
// over what has changed at a place of its own choice, between two frames.
//
//     main-loop [LOCATOR=VALUE...]
//
// Each value given, for example [Video/Osd]enabled=no, is set by somebody else, played by a second client, once the
// loop has taken over the one before. The loop ends after the last.

#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>

#include "tavix/settings/SettingsWatcher.h"
#include "tavix/settings/TavixSettingsClient.h"

using tavix::settings::SettingsWatcher;
using tavix::settings::TavixSettingsClient;

namespace {

struct Camera {
  int fps = 0;
  std::string codec;
  bool showsText = false;
};

void Print(const Camera& camera) {
  std::cout << camera.fps << " frames per second, " << camera.codec << ", text " << (camera.showsText ? "on" : "off")
            << std::endl;
}

void TakeFrame(const Camera& camera) {
  std::this_thread::sleep_for(std::chrono::milliseconds(camera.fps > 0 ? 1000 / camera.fps : 100));
}

void SetBySomebodyElse(const std::string& text) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos) throw std::invalid_argument("expected LOCATOR=VALUE, found " + text);
  TavixSettingsClient(TavixSettingsClient::SingleThreaded).SetValue(text.substr(0, equals), text.substr(equals + 1));
}

void RunLoop(char** change, char** last) {
  TavixSettingsClient settings(TavixSettingsClient::MultiThreaded);
  Camera camera;
  SettingsWatcher watcher(&settings);
  watcher.AddSetting("Video/Streams/Main", "fps", &camera.fps);
  watcher.AddSetting("Video/Streams/Main", "codec", &camera.codec);
  watcher.AddSetting("Video/Osd", "enabled", &camera.showsText);
  watcher.UpdateSettings();
  Print(camera);

  // The watcher's subscription is on its way. A reply on the same connection tells that it is in force, and that the
  // first change below can't come too early.
  settings.GetValue("[Video/Osd]enabled");

  bool changing = false;
  while (change != last || changing) {
    if (watcher.TryUpdateSettings()) {
      Print(camera);
      changing = false;
    }
    TakeFrame(camera);
    if (!changing && change != last) {
      SetBySomebodyElse(*change++);
      changing = true;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    RunLoop(argv + 1, argv + argc);
  } catch (const std::exception& exception) {
    std::cerr << "main-loop: " << exception.what() << "\n";
    return EXIT_FAILURE;
  }
}
