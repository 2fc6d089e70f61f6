#include "FailureMessage.h"

#include "CommandFailure.h"
#include "Records/CorvaneError.h"

namespace corvane::cli {

std::string failureMessage(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const CorvaneError& error) {
        return error.errorDescription();
    } catch (const CommandFailure& error) {
        return error.what();
    } catch (const std::exception& error) {
        return std::string("corvane: ") + error.what();
    } catch (...) {
        return "corvane: an unexpected error occurred";
    }
}

}  // namespace corvane::cli
