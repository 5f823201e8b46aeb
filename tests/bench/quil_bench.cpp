// Benchmarks of the hot paths: object text both ways, and a push from its bytes to the
// notification. Lines above the verbosity are suppressed, as in a running agent; the others go to
// /dev/null.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "agent/messages/push_message.hpp"
#include "agent/support/log.hpp"
#include "platform/pps/decoder.hpp"
#include "platform/pps/encoder.hpp"

namespace {

const std::string kRequest =
    "@ipc.17\nmsg::createChannel\nid::42\ndat:json:{\"providerApplicationId\":\"com.example.news\","
    "\"ppgUrl\":\"http://push.example.com:8080\"}\n";

std::string makePush(std::int64_t dataBytes) {
    return "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(dataBytes) +
           "\r\nContent-Type: text/plain\r\nPush-Message-ID: m1\r\n\r\n" +
           std::string(static_cast<std::size_t>(dataBytes), 'd');
}

void decodeRequest(benchmark::State& state) {
    for (auto _ : state) {
        pps_decoder_t decoder;
        pps_decoder_initialize(&decoder, kRequest.c_str());
        pps_decoder_push(&decoder, nullptr);
        pps_decoder_push(&decoder, "dat");
        std::string appId;
        pps_decoder_get_string(&decoder, "providerApplicationId", &appId);
        benchmark::DoNotOptimize(appId);
    }
}

void parsePush(benchmark::State& state) {
    const std::string bytes = makePush(state.range(0));
    for (auto _ : state) {
        QuilPushMessage push("com.example.news", "@ipc.17");
        push.setPayload(bytes.data(), static_cast<int>(bytes.size()));
        benchmark::DoNotOptimize(push.getDataPosition());
    }
}

void pushToNotification(benchmark::State& state) {
    const std::string bytes = makePush(state.range(0));
    for (auto _ : state) {
        QuilPushMessage push("com.example.news", "@ipc.17");
        push.setPayload(bytes.data(), static_cast<int>(bytes.size()));
        push.createData();
        pps_encoder_t encoder;
        pps_encoder_initialize(&encoder, false);
        pps_encoder_start_object(&encoder, "@ipc.17");
        pps_encoder_start_object(&encoder, "dat");
        push.addData(&encoder);
        pps_encoder_end_object(&encoder);
        pps_encoder_end_object(&encoder);
        benchmark::DoNotOptimize(pps_encoder_buffer(&encoder));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

void suppressedLine(benchmark::State& state) {
    for (auto _ : state) {
        QUIL_LOG(LOG_LEVEL_DEBUG, "port [%d] fd[%d]", 1, 2);
    }
}

// The echo of lines that are shown must not be part of what is measured on a terminal.
const bool g_isQuiet = std::freopen("/dev/null", "w", stdout) != nullptr;

}  // namespace

BENCHMARK(decodeRequest);
BENCHMARK(parsePush)->Arg(100)->Arg(11000);
BENCHMARK(pushToNotification)->Arg(100)->Arg(11000);
BENCHMARK(suppressedLine);
