// From Opus packets to the sound device: SDL writes to a file what it would give to the hardware.
#include <algorithm>
#include <filesystem>
#include <numbers>

#include "tests/e2e/played_sound.h"
#include "tests/e2e/player_fixture.h"

namespace vesper::test {

namespace {

// As the player's volume does it: truncated toward zero.
SoundBlock scaled(SoundBlock block, float volume) {
    for (short& sample : block) {
        sample = static_cast<short>(static_cast<float>(sample) * volume);
    }
    return block;
}

// What the player's decoder must make of the packets.
class Reference {
  public:
    Reference() { (void)decoder_.init(48000, 2); }

    SoundBlock decode(const std::vector<std::uint8_t>& packet) {
        SoundBlock block{};
        EXPECT_EQ(decoder_.decode(packet.data(), static_cast<int>(packet.size()), block.data(),
                                  kBlockFrames),
                  kBlockFrames);
        return block;
    }
    SoundBlock conceal() {
        SoundBlock block{};
        EXPECT_EQ(decoder_.decode_plc(block.data(), kBlockFrames), kBlockFrames);
        return block;
    }

  private:
    OpusDecoderWrapper decoder_;
};

}  // namespace

class Sound : public PlayerTest {
  protected:
    void start_player_with_sound(const std::vector<std::string>& more = {}) {
        sound.redirect(environment);
        std::vector<std::string> arguments = {"--has-audio"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        failure_text = sound.driver_text();
        start_player(arguments);
    }

    // Sends these packets of the tone; packets that are left out keep their numbers.
    void play(const std::vector<std::uint8_t>& packet) { send({packetizer_.packetize(packet)}); }
    void lose(const std::vector<std::uint8_t>& packet) { (void)packetizer_.packetize(packet); }

    // Waits until the device has exactly these blocks, and nothing else that sounds.
    void expect_heard(const SoundBlocks& expected) {
        const SoundBlocks sounding = without_silence(expected);
        (void)eventually([&] { return sound.heard().size() >= sounding.size(); });
        const SoundBlocks result = sound.heard();
        ASSERT_EQ(result.size(), sounding.size());
        for (std::size_t i = 0; i < result.size(); ++i) {
            ASSERT_EQ(result[i], sounding[i]) << "block " << i;
        }
    }

    PlayedSound sound{directory.path() / "sound.pcm"};
    tools::AudioPacketizer packetizer_;
    ToneSource tone_;
    Reference reference_;
};

TEST_F(Sound, ToneArrivesAtItsFrequencyAndLevel) {
    constexpr int kPackets = 50;  // one second
    start_player_with_sound();
    SoundBlocks expected;
    for (const auto& packet : tone_.packets(kPackets)) {
        play(packet);
        expected.push_back(reference_.decode(packet));
    }
    expect_heard(expected);
    SoundBlocks steady = sound.heard();
    steady.erase(steady.begin());  // the codec fades in
    expect_tone(steady);
}

TEST_F(Sound, LossOfThreePacketsIsConcealed) {
    start_player_with_sound();
    const auto packets = tone_.packets(12);
    SoundBlocks expected;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const bool lost = i >= 5 && i < 8;
        lost ? lose(packets[i]) : play(packets[i]);
        expected.push_back(lost ? reference_.conceal() : reference_.decode(packets[i]));
    }
    expect_heard(expected);
}

TEST_F(Sound, LongerLossIsBridgedByThreeBlocksAtMost) {
    start_player_with_sound();
    const auto packets = tone_.packets(20);
    SoundBlocks expected;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const bool lost = i >= 5 && i < 15;
        lost ? lose(packets[i]) : play(packets[i]);
        if (!lost) {
            expected.push_back(reference_.decode(packets[i]));
        } else if (i < 8) {
            expected.push_back(reference_.conceal());
        }
    }
    expect_heard(expected);
}

TEST_F(Sound, HalfVolumeHalvesTheLevel) {
    start_player_with_sound({"--audio-volume", "0.5"});
    SoundBlocks expected;
    for (const auto& packet : tone_.packets(25)) {
        play(packet);
        expected.push_back(scaled(reference_.decode(packet), 0.5F));
    }
    expect_heard(expected);
    SoundBlocks steady = sound.heard();
    steady.erase(steady.begin());
    EXPECT_NEAR(root_mean_square(steady), ToneSource::kAmplitude / std::numbers::sqrt2 / 2,
                0.025 * ToneSource::kAmplitude);
}

TEST_F(Sound, MutedStartIsSilentUntilUnmutedAndKeepsTheVolume) {
    start_player_with_sound({"--audio-volume", "0.5", "--audio-muted"});
    for (const auto& packet : tone_.packets(10)) {
        play(packet);
        (void)reference_.decode(packet);
    }
    window->press_key("m");
    EXPECT_FALSE(parent.next_message().empty());
    SoundBlocks expected;
    for (const auto& packet : tone_.packets(10)) {
        play(packet);
        expected.push_back(scaled(reference_.decode(packet), 0.5F));
    }
    expect_heard(expected);
}

TEST_F(Sound, LevelFollowsTheControls) {
    keep_bar();
    start_player_with_sound();
    SoundBlocks expected;
    const auto play_at = [&](float volume) {
        for (const auto& packet : tone_.packets(5)) {
            play(packet);
            expected.push_back(scaled(reference_.decode(packet), volume));
        }
    };
    // A message arrives after its change took effect.
    const auto press = [&](const char* key) {
        window->press_key(key);
        EXPECT_FALSE(parent.next_message().empty());
    };
    play_at(1.0F);
    press("Down");
    play_at(1.0F - 0.05F);
    press("m");
    play_at(0.0F);
    press("Down");
    play_at(0.0F);
    press("m");
    play_at(1.0F - 0.05F - 0.05F);
    window->click({.x = 48 + 75, .y = kPictureSize.height - 18});
    EXPECT_FALSE(parent.next_message().empty());
    play_at(0.25F);
    expect_heard(expected);
}

TEST_F(Sound, UndecodablePacketIsSkipped) {
    start_player_with_sound();
    SoundBlocks expected;
    for (const auto& packet : tone_.packets(5)) {
        play(packet);
        expected.push_back(reference_.decode(packet));
    }
    play({0xFF, 0xFF, 0xFF});  // a frame count too high for its length
    for (const auto& packet : tone_.packets(5)) {
        play(packet);
        expected.push_back(reference_.decode(packet));
    }
    expect_heard(expected);
}

TEST_F(Sound, WithoutHasAudioPacketsAreIgnored) {
    sound.redirect(environment);
    start_player();
    for (const auto& packet : tone_.packets(10)) {
        play(packet);
    }
    constexpr Color kBlue{.red = 30, .green = 60, .blue = 200};
    show_first_picture(flat_picture(kBlue));
    expect_color({.x = 200, .y = 120}, kBlue);
    EXPECT_FALSE(std::filesystem::exists(sound.file()));
}

}  // namespace vesper::test
