#include "tests/support/ServedStore.h"

#include <sstream>
#include <utility>

#include "tavix/settings/server/ClientHandler.h"

namespace tavix::test {

ServedStore::ServedStore(std::vector<std::string> defaults, std::string user, std::string restricted)
    : persister(std::move(defaults), std::move(user)),
      restrictedLoader(std::move(restricted)),
      store(&persister, &restrictedLoader, nullptr, false),
      env{&store, &serializers} {}

std::string ServedStore::Serve(const std::string& input) {
  std::istringstream in(input);
  std::ostringstream out;
  settings::server::ClientHandler(&env, &in, &out).Run();
  return out.str();
}

}  // namespace tavix::test
