#include "opcda/Application.h"

#include "base/TimeSource.h"
#include "opcda/Server.h"

namespace quelm::opcda {

// The order in which clients browse is made now: the first of them would wait for it.
Application::Application(SLIKNetwork& control, IMessageLoop& loop, IValueWriter& values)
    : control_(&control),
      loop_(&loop),
      startTime_(timeSource().fileTimeNow()),
      budgets_([this] { return items().Count(); }),
      callback_(values),
      publisher_(loop) {
    items().browseOrder();
    control.onValuesShown([this] { publisher_.valuesShown(); });
}

Application::~Application() {
    control_->onValuesShown(nullptr);
}

void Application::requestShutdown(std::string_view reason) {
    for (const Server* server : servers_) {
        server->requestShutdown(reason);
    }
}

}  // namespace quelm::opcda
