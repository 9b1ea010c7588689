#include "pin_commands.h"

#include <cstdio>
#include <cstring>

#include "bus.h"
#include "json.h"
#include "output.h"
#include "result_text.h"
#include "secret.h"
#include "verbs.h"

constexpr int32_t MODEM_REFUSED = 65535;

// ---- what the card says

// Attempts left; what the modem does not tell is nullopt.
struct Attempts {
    std::optional<int32_t> pin;
    std::optional<int32_t> puk;
};

static Attempts ask_attempts()
{
    Reply detailed;
    Reply brief;
    if (bus_call("get_remaining_pin_retries", nullptr, detailed) && detailed.number("pin1_retries"))
        return {detailed.number("pin1_retries"), detailed.number("puk1_retries")};
    (void)bus_call("get_sim_remaining_attempts", nullptr, brief); // unknown if not done
    return {brief.number("pin"), brief.number("puk")};
}

static int explain_card(const Reply &reply)
{
    if (reply.bus_status == 0 && reply.answered && reply.result == MODEM_REFUSED)
        return fail(EXIT_REFUSED, "pin: there is no SIM card, or the modem cannot read it");
    return explain("pin", reply);
}

// Of a refused code the number of attempts left is what people want to know.
static int explain_refusal(const Reply &reply, bool puk)
{
    if (reply.bus_status != 0 || !reply.answered || reply.result != MODEM_REFUSED)
        return explain("pin", reply);
    Attempts left = ask_attempts();
    std::optional<int32_t> count = puk ? left.puk : left.pin;
    if (!count)
        return explain("pin", reply);
    return fail(EXIT_REFUSED, "pin: the SIM card refused it; attempts left: %d", static_cast<int>(*count));
}

static const char *card_words(const char *status)
{
    static const char words[][2][20] = {
        {"READY", "ready"}, {"SIM PIN", "waits for its PIN"}, {"SIM PUK", "waits for its PUK"}};
    for (auto &row : words)
        if (status && strcmp(row[0], status) == 0)
            return row[1];
    return status ? status : "";
}

static int show_status(const Arguments &)
{
    Reply card;
    Reply lock;
    if (!bus_call("get_sim_status", nullptr, card))
        return explain_card(card);
    (void)bus_call("get_sim_lock_status", nullptr, lock); // unknown if not done
    Attempts left = ask_attempts();
    const char *status = card.text("status");
    bool known = lock.done();
    bool locked = lock.number("enabled").value_or(0) != 0;
    json_open(nullptr, '{');
    json_text("sim", status);
    json_bool("locked", known ? std::optional<bool>(locked) : std::nullopt);
    json_number("pin_attempts", left.pin);
    json_number("puk_attempts", left.puk);
    json_close();
    print_row("SIM", "%s", card_words(status));
    print_row("PIN at start", "%s", !known ? "" : locked ? "asked for" : "not asked for");
    char count[16];
    const std::optional<int32_t> counts[] = {left.pin, left.puk};
    const char *const labels[] = {"PIN attempts", "PUK attempts"};
    for (int i = 0; i < 2; i++) {
        snprintf(count, sizeof(count), "%d", static_cast<int>(counts[i].value_or(0)));
        print_row(labels[i], "%s", counts[i] ? count : "");
    }
    return EXIT_DONE;
}

// ---- codes

// 3GPP TS 31.101 9.5.1: a PIN has 4 to 8 digits, a PUK 8. What cannot be one costs no attempt.
static int check_code(const Secret &code, size_t shortest, const char *name)
{
    size_t length = strlen(code.text);
    if (length >= shortest && length <= 8 && strspn(code.text, "0123456789") == length)
        return EXIT_DONE;
    return usage_error("pin", shortest == 8 ? "a %s has 8 digits" : "a %s has 4 to 8 digits", name);
}

static int read_code(const char *name, size_t shortest, std::optional<int32_t> attempts, Secret &code)
{
    char prompt[64];
    if (attempts)
        snprintf(prompt, sizeof(prompt), "%s (attempts left: %d)", name, static_cast<int>(*attempts));
    else
        snprintf(prompt, sizeof(prompt), "%s", name);
    int result = read_secret("pin", prompt, code);
    return result == EXIT_DONE ? check_code(code, shortest, name) : result;
}

static int read_pin(Secret &pin)
{
    return read_code("PIN", 4, ask_attempts().pin, pin);
}

static int read_new_pin(Secret &pin)
{
    int code = read_new_secret("pin", "New PIN", "New PIN again", pin);
    return code == EXIT_DONE ? check_code(pin, 4, "PIN") : code;
}

static int finish(const char *method, const CallArguments &arguments, bool puk, const char *done)
{
    Reply reply;
    if (!bus_call(method, &arguments, reply))
        return explain_refusal(reply, puk);
    print_line("%s", done);
    return EXIT_DONE;
}

static int unlock(const Arguments &)
{
    Reply card;
    if (!bus_call("get_sim_status", nullptr, card))
        return explain_card(card);
    const char *status = card.text("status");
    bool with_puk = status && strcmp(status, "SIM PUK") == 0;
    if (status && strcmp(status, "READY") == 0) {
        print_line("The SIM card waits for no PIN.");
        return EXIT_DONE;
    }
    if (!with_puk && (!status || strcmp(status, "SIM PIN") != 0))
        return fail(EXIT_REFUSED, "pin: the SIM card waits for something else (%s)", status ? status : "unknown");
    Secret puk;
    Secret pin;
    int code = with_puk ? read_code("PUK", 8, ask_attempts().puk, puk) : int{EXIT_DONE};
    if (code == EXIT_DONE)
        code = with_puk ? read_new_pin(pin) : read_pin(pin);
    if (code != EXIT_DONE)
        return code;
    CallArguments arguments;
    arguments.text("pin", pin.text);
    if (with_puk)
        arguments.text("puk", puk.text);
    return finish("unlock_sim", arguments, with_puk, "The SIM card is unlocked.");
}

// Whether the SIM asks for its PIN at start.
static int ask_lock(bool *enabled)
{
    Reply lock;
    if (!bus_call("get_sim_lock_status", nullptr, lock))
        return explain_card(lock);
    *enabled = lock.number("enabled").value_or(0) != 0;
    return EXIT_DONE;
}

static int change(const Arguments &)
{
    bool enabled = false;
    Secret pin;
    Secret new_pin;
    int code = ask_lock(&enabled);
    if (code == EXIT_DONE && !enabled)
        return fail(EXIT_REFUSED, "pin: a SIM card that asks for no PIN changes none; see 'celmux pin lock'");
    if (code == EXIT_DONE)
        code = read_pin(pin);
    if (code == EXIT_DONE)
        code = read_new_pin(new_pin);
    if (code != EXIT_DONE)
        return code;
    CallArguments arguments;
    arguments.text("pin", pin.text);
    arguments.text("new_pin", new_pin.text);
    return finish("change_sim_pin", arguments, false, "The PIN is changed.");
}

static int set_lock(bool wanted)
{
    const char *done = wanted ? "The SIM card asks for its PIN at start." : "The SIM card no longer asks for its PIN.";
    bool enabled = false;
    int code = ask_lock(&enabled);
    if (code != EXIT_DONE)
        return code;
    if (enabled == wanted) {
        print_line("%s", done);
        return EXIT_DONE;
    }
    Secret pin;
    code = read_pin(pin);
    if (code != EXIT_DONE)
        return code;
    CallArguments arguments;
    arguments.text("pin", pin.text);
    arguments.number("enabled", wanted);
    return finish("set_sim_lock_status", arguments, false, done);
}

static int lock(const Arguments &)
{
    return set_lock(true);
}

static int unlock_lock(const Arguments &)
{
    return set_lock(false);
}

int command_pin(const Arguments &arguments)
{
    static const Verb verbs[] = {
        {"status", show_status, 0, 0}, {"unlock", unlock, 0, 0},           {"change", change, 0, 0},
        {"lock", lock, 0, 0},          {"unlock-lock", unlock_lock, 0, 0},
    };
    if (arguments.count > 1)
        return usage_error("pin", "codes are typed at the prompt or come from standard input, not from the arguments");
    return run_verb("pin", verbs, arguments);
}
