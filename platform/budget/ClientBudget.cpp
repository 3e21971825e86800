#include "budget/ClientBudget.h"

namespace quelm {

std::shared_ptr<ClientBudget> ClientBudgets::of(std::string_view account, std::string_view host) {
    std::erase_if(budgets_, [](const auto& entry) { return entry.second.expired(); });
    std::weak_ptr<ClientBudget>& known = budgets_[{std::string(account), std::string(host)}];
    std::shared_ptr<ClientBudget> budget = known.lock();
    const ClientLimits now = limits();
    if (budget == nullptr) {
        budget = std::make_shared<ClientBudget>(now);
        known = budget;
    } else {
        budget->memory.limitTo(now.memory);
        budget->groups.limitTo(now.groups);
    }
    return budget;
}

}  // namespace quelm
