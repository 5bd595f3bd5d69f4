#include "fakes/reset.h"

#include "fakes/fake_cdb.h"
#include "fakes/fake_filter_manager.h"
#include "fakes/fake_limid.h"
#include "fakes/fake_manager.h"
#include "fakes/fake_middleware.h"
#include "fakes/fake_provider.h"
#include "fakes/fake_qmconfd.h"
#include "fakes/fake_zlog.h"
#include "fakes/script.h"
#include "fakes/trace.h"

namespace fakes {

void ResetAll() {
  TheTrace() = {};
  TheScript() = {};
  TheZlog() = {};
  TheMiddleware() = {};
  TheLimid() = {};
  TheFilters() = {};
  TheManager() = {};
  TheCdb() = {};
  TheProvider() = {};
  TheWrapper() = {};
  SetLastError(0, "");
}

}  // namespace fakes
