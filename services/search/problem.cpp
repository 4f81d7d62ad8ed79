// One place that knows every kind of exception.
#include "services/search/problem.h"

#include <new>
#include <system_error>

#include "services/search/index.h"
#include "services/search/refusal.h"

namespace nimoelasticd {

Problem CurrentProblem() {
  try {
    throw;
  } catch (const Refusal& refusal) {
    return {static_cast<int>(refusal.code()), refusal.what()};
  } catch (const search::Error& error) {
    return {static_cast<int>(error.code()), error.what()};
  } catch (const std::bad_alloc&) {
    return {static_cast<int>(Code::kTooMuchMemory), "out of memory"};
  } catch (const std::system_error& error) {
    return {static_cast<int>(Code::kStorage), error.what()};
  } catch (const std::exception& error) {
    return {static_cast<int>(Code::kInternal), error.what()};
  }
}

}  // namespace nimoelasticd
