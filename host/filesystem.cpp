#include "platform/filesystem.h"

#include <filesystem>
#include <string>
#include <system_error>

#include "host/runtime/path_text.h"

namespace Services::Filesystem::Client {

Ref<String> Service::absolute(Ref<String> path, Ref<String> base) {
  std::error_code error;
  std::string directory = std::filesystem::current_path(error);
  if (error) {
    directory.clear();
  }
  if (base) {
    directory = Host::resolvePath(base->view(), directory);
  }
  return String::create(
      std::string_view(Host::resolvePath(path ? path->view() : std::string_view(), directory)));
}

}  // namespace Services::Filesystem::Client
