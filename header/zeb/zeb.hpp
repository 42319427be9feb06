// ZEB for C++17 and later, over the C interface: header only, namespace zeb.
//
//   zeb::runtime runtime;                                    // its end is the end of the library
//   zeb::app_options options(300, "ports");
//   options.on_message(1, [](zeb::message message) { std::cout << message.text() << '\n'; });
//   options.on_call(2, [](const zeb::request &) { return zeb::message::from_text(2, "48 ports"); });
//   options.peers({301});
//   zeb::app ports = runtime.add(std::move(options)).value();
//   runtime.run();
//   if (auto error = ports.send(301, zeb::message::from_text(1, "up")))
//       std::cerr << error.message() << '\n';
//
// Results. What gives nothing back returns a std::error_code, which is true when the call failed: `if (auto error =
// …)`. What gives a value back returns a zeb::result. The numbers are those of the C interface and the texts those of
// zeb_strerror; zeb::last_error() says why. No function here throws an exception of its own but value() of a result
// without a value. Those that allocate may throw std::bad_alloc. All of it compiles with -fno-exceptions and -fno-rtti.
//
// Ownership. zeb::runtime owns the handlers of its applications, so it must end before what they refer to: declare it
// after that, and it ends first. zeb::app is a handle: copy it freely; after the end its calls fail. A zeb::message
// owns its block. Who takes a message or a request by value owns it.
//
// Threads. Any thread may make any call of an app. Two threads must not use one message, request, options record or
// replies at once. Handlers of an application run one at a time, on the thread that its mode says.
//
// Exceptions. None leaves a handler for the library. When a handler, the function of a call or a coroutine that a call
// resumes throws, its application's on_exception gets the exception and the application goes on; a request that the
// handler held gets ZEB_SYSTEM_ERR. Without an on_exception the program ends by std::terminate, with the stack of the
// throw, as it does when a thread's function throws.
//
// Standards. zeb::span is std::span from C++20 on, zeb::result is a std::expected from C++23 on, and before that each
// is a small class of the same shape. Coroutines need C++20. Where the types differ, or there are no exceptions, so do
// the names that the linker sees: parts of a program that are compiled differently can be linked, but cannot hand each
// other these types.
#ifndef ZEB_HPP
#define ZEB_HPP

#include <zeb/cpp/base.hpp>
#include <zeb/cpp/message.hpp>
#include <zeb/cpp/call.hpp>
#include <zeb/cpp/app.hpp>

#endif
