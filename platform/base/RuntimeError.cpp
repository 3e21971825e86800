#include "base/RuntimeError.h"

#include <new>
#include <stdexcept>
#include <typeinfo>
#include <utility>
#include <variant>

namespace quelm {

RuntimeError::RuntimeError(long number, std::string description)
    : number_(number), description_(description.empty() ? runtimeErrorText(number) : std::move(description)) {}

const char* runtimeErrorText(long number) {
    switch (number) {
        case errors::invalidCall:
            return "Invalid procedure call or argument";
        case errors::overflow:
            return "Overflow";
        case errors::outOfMemory:
            return "Out of memory";
        case errors::subscript:
            return "Subscript out of range";
        case 11:
            return "Division by zero";
        case errors::typeMismatch:
            return "Type mismatch";
        case 52:
            return "Bad file name or number";
        case 53:
            return "File not found";
        case 57:
            return "Device I/O error";
        case 61:
            return "Disk full";
        case 70:
            return "Permission denied";
        case 75:
            return "Path/File access error";
        case 76:
            return "Path not found";
        case errors::objectNotSet:
            return "Object variable or With block variable not set";
        case errors::invalidUseOfNull:
            return "Invalid use of Null";
        case errors::duplicateKey:
            return "This key is already associated with an element of this collection";
        default:
            return "Application-defined or object-defined error";
    }
}

ErrorInfo currentError() {
    if (!std::current_exception()) {
        return {errors::invalidCall, runtimeErrorText(errors::invalidCall)};
    }
    const auto classic = [](long number) { return ErrorInfo{number, runtimeErrorText(number)}; };
    try {
        throw;
    } catch (const RuntimeError& error) {
        return {error.number(), error.description()};
    } catch (const std::bad_alloc&) {
        return classic(errors::outOfMemory);
    } catch (const std::out_of_range&) {
        return classic(errors::subscript);
    } catch (const std::bad_cast&) {
        return classic(errors::typeMismatch);
    } catch (const std::bad_typeid&) {
        return classic(errors::typeMismatch);
    } catch (const std::bad_variant_access&) {
        return classic(errors::typeMismatch);
    } catch (const std::exception& error) {
        return {errors::invalidCall, error.what()};
    } catch (...) {
        return classic(errors::invalidCall);
    }
}

}  // namespace quelm
