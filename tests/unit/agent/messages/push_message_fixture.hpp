// A push message to feed, and what can be seen of it.

#pragma once

#include <gtest/gtest.h>

#include <string>

#include "agent/messages/push_message.hpp"
#include "platform/pps/encoder.hpp"

inline const std::string kExample =
    "POST /x HTTP/1.1\r\nContent-Length: 5\r\nPush-Message-ID: m1\r\n\r\nhello";

class PushMessage : public ::testing::Test {
  protected:
    void feed(const std::string& bytes) {
        m_push.setPayload(bytes.data(), static_cast<int>(bytes.size()));
    }

    // The headers as "[name=value]", in order.
    std::string headers() const {
        std::string all;
        for (const auto& header : m_push.getHttpHeaders()) {
            all += "[" + header->getName() + "=" + header->getValue() + "]";
        }
        return all;
    }

    // The text of a notification's "dat", as far as the message writes it.
    std::string encoded() const {
        pps_encoder_t encoder;
        pps_encoder_initialize(&encoder, false);
        pps_encoder_start_object(&encoder, nullptr);
        EXPECT_TRUE(m_push.addData(&encoder));
        EXPECT_EQ(encoder.m_levels.size(), 1U) << "an object was left open";
        pps_encoder_end_object(&encoder);
        return {pps_encoder_buffer(&encoder), pps_encoder_length(&encoder)};
    }

    QuilPushMessage m_push{"app", "@ipc.1"};
};
