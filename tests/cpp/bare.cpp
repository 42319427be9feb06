// Every function and template of zeb.hpp in a program without exceptions and without run-time types: it must compile.
#include <zeb/zeb.hpp>

int zeb_hpp_without_exceptions(); // called by nobody

int zeb_hpp_without_exceptions()
{
    using namespace std::chrono_literals;
    zeb::runtime runtime;
    zeb::app_options options(300, "bare");
    options.on_message(1, [](zeb::message) {});
    options.on_call(2, [](const zeb::request &) { return zeb::message(2); }).on_call(3, [](zeb::request) {});
    options.on_join([](zeb::instance) {}).on_quit([](zeb::instance) {}).on_queue(5, [](uint32_t) {});
    options.on_exception([](std::exception_ptr) {}).peers({301}).run_in(zeb::mode::polled);
    zeb::app app = runtime.add(std::move(options)).value();
    runtime.run();
    auto done = [](zeb::result<zeb::replies> outcomes) { (void)outcomes.value(); };
    auto pending = app.call_async(301, zeb::message(2), 1s, done);
    auto outcomes = app.call({301, 1}, zeb::message(2), 1s, zeb::exclude_self);
    auto group = app.make_node_group();
    if (!group || group->add(1) || app.send({301, group->id()}, zeb::message(1)) || pending->cancel())
        return 1;
    return outcomes->begin()->text().empty() && app.dispatch().value_or(0) == 0 ? 0 : 1;
}
