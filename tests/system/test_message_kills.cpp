// Power cuts: the daemon is killed at random moments while messages arrive and are deleted. What the SIM has given away
// must be in the store afterwards, once. CELMUX_KILL_RUNS and CELMUX_KILL_SEED in the environment set the number of
// kills and the seed.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "router.h"

using nlohmann::json;

static unsigned from_environment(const char *name, unsigned otherwise)
{
    const char *text = getenv(name);
    return text ? static_cast<unsigned>(atoi(text)) : otherwise;
}

class Campaign {
public:
    explicit Campaign(unsigned seed) : random_(seed) {}

    // Messages arrive and stored ones are deleted, until the daemon is killed in the middle of it.
    void cut_power_in_a_busy_moment()
    {
        int life_ms = std::uniform_int_distribution<int>(0, 400)(random_);
        std::thread busy([this] {
            for (int i = 0; i < 8; i++) {
                receive();
                if (i % 3 == 1)
                    delete_one();
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(life_ms));
        router.daemon.celmuxd().signal(SIGKILL);
        busy.join();
        (void)router.daemon.celmuxd().wait_exit();
    }

    void start_again()
    {
        router.daemon.start_again();
        ASSERT_TRUE(router.wait_until_free());
        // What was announced to the dead daemon is announced again, or the card would only fill.
        json left = router.modem_state("/messages/stored");
        for (size_t i = 0; i < left.size() && i < 20; i++)
            router.modem({{"do", "emit"}, {"args", {"+CMTI: \"SM\"," + left[i]["index"].dump()}}});
    }

    // Everything that left the SIM is in the store, nothing is there twice.
    void check()
    {
        json history = router.modem_state("/messages/history"); // first: what leaves the SIM later may be missing here
        json answer = router.ask("get_all_messages");
        ASSERT_EQ(answer.value("result", -1), 0);
        std::map<std::string, int> stored;
        std::string all;
        for (const json &message : answer["messages"]) {
            std::string text = message_text(message);
            EXPECT_EQ(++stored[text], 1) << text;
            all += text + "\n";
        }
        handed_over = 0;
        for (const json &message : history) {
            if (!message["deleted"])
                continue;
            handed_over++;
            const Part &part = parts_.at(message["id"]);
            bool kept = deleted_.contains(part.name) || all.find(part.content) != std::string::npos;
            EXPECT_TRUE(kept) << "lost: " << part.content;
        }
        listed = answer["messages"].size();
    }

    // A listing of many more would not fit into a bus message. What is on its way from the SIM comes first.
    void delete_old_ones()
    {
        if (listed < 300)
            return;
        ASSERT_TRUE(wait_for([&] { return router.modem_state("/messages/used/SM") == 0; }));
        check();
        for (const auto &[id, part] : parts_)
            deleted_.insert(part.name);
        ASSERT_EQ(router.call("delete_all_messages"), R"({"result":0})");
    }

    size_t received() const
    {
        return parts_.size();
    }

    Router router{R"({"modem": {"behaviour": {"scan_ms": 5, "sms_capacity": 255}}})"};
    size_t handed_over = 0;
    size_t listed = 0;

private:
    struct Part {
        std::string name; // of the whole message, in front of each part's content
        std::string content;
    };

    // Every fourth message has two parts. Each part's content is found nowhere else.
    void receive()
    {
        std::string name = "<" + std::to_string(++count_) + ">";
        bool is_long = count_ % 4 == 0;
        std::string text = name;
        while (is_long && text.size() < 200)
            text += " part " + std::string(text.size() < 152 ? "one " : "two ") + name;
        // A reference of 8 bits would come again, and the parts of a later message would be taken for repeated ones.
        json answer = router.modem(
            {{"do", "sms"}, {"args", {"+491701234567", text}}, {"ref", std::to_string(count_)}, {"width", "16"}});
        for (size_t i = 0; i < answer["ids"].size(); i++)
            parts_[answer["ids"][i]] = {name, is_long ? text.substr(i * 152, 152) : text};
    }

    // Later messages come behind this one, so its index holds until the call arrives. A call that the kill cuts short
    // may have been carried out or not.
    void delete_one()
    {
        json list = router.ask("get_all_messages");
        if (!list.is_object() || list["messages"].size() < 5)
            return;
        size_t chosen = random_() % list["messages"].size();
        std::string text = message_text(list["messages"][chosen]);
        if (!text.starts_with('<') || (text.size() > 20 && text.size() < 200))
            return; // a part of a long message whose other part is to come
        deleted_.insert(text.substr(0, text.find('>') + 1));
        (void)router.daemon.bus.call("delete_message", {{"index", chosen + 1}}, 2);
    }

    std::mt19937 random_;
    unsigned count_ = 0;
    std::map<uint64_t, Part> parts_; // by the modem's id
    std::set<std::string> deleted_;
};

TEST(MessageKills, NothingThatLeftTheSimIsLost)
{
    unsigned runs = from_environment("CELMUX_KILL_RUNS", 20);
    unsigned seed = from_environment("CELMUX_KILL_SEED", 1);
    Campaign campaign(seed);
    for (unsigned run = 1; run <= runs; run++) {
        SCOPED_TRACE("kill " + std::to_string(run) + " of seed " + std::to_string(seed));
        campaign.cut_power_in_a_busy_moment();
        campaign.start_again();
        campaign.check();
        campaign.delete_old_ones();
        if (HasFailure())
            return;
    }
    EXPECT_GT(campaign.handed_over, runs);
    std::cout << runs << " kills: " << campaign.received() << " parts received, " << campaign.handed_over
              << " taken off the SIM, " << campaign.listed << " messages stored at the end\n";
}
