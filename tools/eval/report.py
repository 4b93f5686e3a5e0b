"""docs/quality.md and its plots from the scores evaluate.evaluate() returns."""

import math
import os
from collections import defaultdict

import numpy as np
from scipy.stats import t as student_t

import evaluate
import testsets

# (row key, heading, unit) of the mixture tables, in report order.
ONSET_METRIC = ("delta_onset_si_sdr", "ΔSI-SDR of speech onsets (the first 200 ms of each utterance)", "dB")
MIX_METRICS = (("delta_si_sdr", "ΔSI-SDR", "dB"), ONSET_METRIC, ("si_sdr", "SI-SDR", "dB"), ("stoi", "STOI", ""),
               ("estoi", "ESTOI", ""), ("seg_snr", "Segmental SNR", "dB"))
# (row key, heading, unit) of the tables repeated for each noise group.
GROUP_METRICS = (("delta_si_sdr", "ΔSI-SDR", "dB"), ONSET_METRIC, ("estoi", "ESTOI", ""))
GROUP_NAMES = {testsets.SEEN: "seen noise sources", testsets.UNSEEN: "unseen noise sources"}
PLOTS = {"delta_si_sdr": "quality/delta-si-sdr.png", "estoi": "quality/estoi.png",
         "delta_si_sdr_by_group": "quality/delta-si-sdr-by-group.png",
         "spectrogram": "quality/spectrogram.png"}
SPECTROGRAM_RATE_HZ = 48000


def mean_ci(values):
    """Mean and the half-width of its 95 % confidence interval (Student's t)."""
    values = np.asarray(values, dtype=np.float64)
    if len(values) < 2:
        return float(values.mean()), math.nan
    half = student_t.ppf(0.975, len(values) - 1) * values.std(ddof=1) / math.sqrt(len(values))
    return float(values.mean()), float(half)


def _with_delta(rows):
    for row in rows:
        if "si_sdr_in" in row:
            row = dict(row, delta_si_sdr=row["si_sdr"] - row["si_sdr_in"])
        if "onset_si_sdr_in" in row:
            row = dict(row, delta_onset_si_sdr=row["onset_si_sdr"] - row["onset_si_sdr_in"])
        yield row


def summarise(rows):
    """{(rate, system, set, snr or None, noise group or None): {metric: [values]}}; every row is
    also pooled over SNRs under snr None and over noise groups under group None."""
    summary = defaultdict(lambda: defaultdict(list))
    for row in _with_delta(rows):
        for snr in {row.get("snr_db"), None}:
            for group in {row.get("group"), None}:
                for metric, value in row.items():
                    if isinstance(value, float):
                        summary[(row["rate_hz"], row["system"], row["set"], snr, group)][metric].append(value)
    return summary


def _cell(values, digits):
    mean, half = mean_ci(values)
    if math.isnan(half):
        return "%.*f" % (digits, mean)
    return "%.*f ± %.*f" % (digits, mean, digits, half)


def system_label(system, model):
    variant = model.get("variants", {}).get(system)
    if variant:
        return "%s (%s)" % (system, variant["label"])
    return "sonel (%s)" % model["label"] if system == evaluate.SONEL else system


def present_systems(result):
    """The systems with scores, peers in their fixed order, then Sonel's model variants by name."""
    present = {row["system"] for row in result["rows"]}
    return [s for s in evaluate.SYSTEMS if s in present] + sorted(present - set(evaluate.SYSTEMS))


def _snrs(summary, rate):
    return sorted({key[3] for key in summary if key[0] == rate and key[2] == "mix" and key[3] is not None})


def _mixture_table(summary, rate, systems, metric, unit, model, group=None):
    snrs = _snrs(summary, rate)
    lines = ["| system | " + " | ".join("%+d dB" % s if s else "0 dB" for s in snrs) + " | all |",
             "|---" * (len(snrs) + 2) + "|"]
    for system in systems:
        if metric.startswith("delta_") and system == evaluate.NOISY:
            continue
        cells = [_cell(summary[(rate, system, "mix", snr, group)][metric], 2 if unit == "dB" else 3)
                 for snr in snrs + [None]]
        lines.append("| %s | %s |" % (system_label(system, model), " | ".join(cells)))
    return lines


def _single_set_table(summary, rate, systems, model):
    lines = ["| system | residual noise, dB below input (noise only) "
             "| SI-SDR of output against input, dB (clean only) | ESTOI (clean only) |",
             "|---|---|---|---|"]
    for system in systems:
        if system == evaluate.NOISY:
            continue
        noise = summary[(rate, system, "noise", None, None)]
        clean = summary[(rate, system, "clean", None, None)]
        lines.append("| %s | %s | %s | %s |" % (system_label(system, model), _cell(noise["residual_db"], 2),
                                               _cell(clean["si_sdr"], 2), _cell(clean["estoi"], 3)))
    return lines


def _noise_only_by_group_table(summary, rate, systems, model):
    lines = ["| system | " + " | ".join(GROUP_NAMES[g] for g in testsets.NOISE_GROUPS) + " | all |",
             "|---" * (len(testsets.NOISE_GROUPS) + 2) + "|"]
    for system in systems:
        if system == evaluate.NOISY:
            continue
        cells = [_cell(summary[(rate, system, "noise", None, group)]["residual_db"], 2)
                 for group in testsets.NOISE_GROUPS + (None,)]
        lines.append("| %s | %s |" % (system_label(system, model), " | ".join(cells)))
    return lines


def _set_summary(items, levels):
    counts = defaultdict(lambda: [0, 0.0])
    for item in items:
        counts[item["set"]][0] += 1
        counts[item["set"]][1] += item["seconds"]
    set_levels = [v for per_rate in levels.values() for v in per_rate.values()]
    per_snr = defaultdict(int)
    for item in items:
        if item["set"] == "mix":
            per_snr[(item["group"], item["snr_db"])] += 1
    snrs = sorted({snr for _, snr in per_snr})
    # Each mixture pair and clean-only item is one speech item.
    corpora = defaultdict(int)
    for item in items:
        if "speech" in item and item.get("group") != testsets.UNSEEN:
            corpora[item["speech"][0].split("_")[0]] += 1
    return [
        "- Mixtures: %d (per SNR of %s dB: %s), %.1f min. Each speech item is mixed twice, at the "
        "same SNR and level, once with each group's noise, so the groups differ in their noise alone."
        % (counts["mix"][0], ", ".join("%+d" % s for s in snrs), "; ".join(
            "%s with %s" % ("/".join(str(per_snr[(g, s)]) for s in snrs), GROUP_NAMES[g])
            for g in testsets.NOISE_GROUPS), counts["mix"][1] / 60),
        "- Noise only: %d items (%s), %.1f min; clean only: %d items, %.1f min. Each set is rendered "
        "at every rate listed below from the same plan."
        % (counts["noise"][0], ", ".join("%d with %s" % (sum(i["set"] == "noise" and i["group"] == g
                                                             for i in items), GROUP_NAMES[g])
                                         for g in testsets.NOISE_GROUPS),
           counts["noise"][1] / 60, counts["clean"][0], counts["clean"][1] / 60),
        "- Speech items by corpus (a mixture pair counts once): %s."
        % ", ".join("`%s_*` %d" % (c, n) for c, n in sorted(corpora.items())),
        "- Levels set: %.1f ... %.1f dBFS RMS (drawn in %g ... %g dBFS, lowered where a peak would "
        "pass %.2f of full scale)." % (min(set_levels), max(set_levels), *testsets.LEVEL_RANGE_DBFS,
                                       testsets.PEAK_LIMIT),
    ]


def _noise_sources(items, holdout):
    """The noise groups' sources: recordings and minutes in the holdout, and items drawn."""
    drawn = defaultdict(int)
    for item in items:
        if "noise" in item:
            drawn[(testsets.noise_source(item["noise"]), item["set"])] += 1
    lines = ["| noise group | source | recordings | minutes | mixtures | noise-only items |",
             "|---|---|---|---|---|---|"]
    for group, names in testsets.noise_pools(holdout).items():
        by_source = defaultdict(list)
        for name in names:
            by_source[testsets.noise_source(name)].append(holdout.seconds("noise", name))
        for source, seconds in sorted(by_source.items()):
            lines.append("| %s | `%s_*` | %d | %.1f | %d | %d |"
                         % (group, source, len(seconds), sum(seconds) / 60, drawn[(source, "mix")],
                            drawn[(source, "noise")]))
    return lines


def _extra_folder(holdout):
    if not holdout.extra_dir:
        return ("Extra folder: not used. The page covers the in-tree holdout alone, without the "
                "Debian-package recordings that `../shared/data/debian/fetch.sh` extracts (0 A.D., "
                "SuperTuxKart and Tux Paint noise, the Freedroid RPG soundtrack).")
    return ("Extra folder: `%s`, the Debian-package recordings that `../shared/data/debian/fetch.sh` "
            "extracts. Its holdout noise joins the groups below. Its holdout speech (Tux Paint's Danish "
            "read descriptions) is not used: the clips carry DC offsets and rumble that any suppressor "
            "removes, so they are no clean reference." % holdout.extra_dir)


def markdown(result, items, holdout, model, command, machine):
    rates = sorted({row["rate_hz"] for row in result["rows"]}, reverse=True)
    systems = present_systems(result)
    summary = summarise(result["rows"])
    lines = [
        "# Objective quality",
        "",
        "Generated by `%s`; re-run it and commit this page and `docs/quality/` whenever a model "
        "changes. Do not edit by hand." % command,
        "",
        "Sonel models: `%s`, sha256 `%s`, model names `%s`." % (model["path"], model["sha256"], model["name"]),
    ]
    if model["stand_in"]:
        lines += ["", "**The Sonel rows come from an untrained stand-in** (a random network of the shipped "
                  "size, `tools/eval/standin.py`): it removes no noise, so they show that the pipeline "
                  "runs, not what Sonel achieves. The peers' rows are real."]
    lines += [
        "",
        "## Test sets",
        "",
        "Made by `tools/eval/testsets.py` (seed %d) from the corpus's holdout split only: holdout "
        "speakers' speech and holdout noise recordings, mixed at a given ratio of active speech level "
        "to noise power." % testsets.SEED,
        "",
        _extra_folder(holdout),
        "",
        "Noise is reported in two groups as well as pooled: *seen noise sources* are further "
        "recordings of sources the training split has recordings of; *unseen noise sources* have "
        "no recording in the training split at all. Users meet noise the model never heard, so the "
        "unseen group is the one that tells how Sonel does in the field.",
        "",
    ] + _noise_sources(items, holdout) + [
        "",
        "Within a group a recording's chance of being drawn is its length up to %g s: every "
        "recording that fills an item counts once however long it runs, a shorter clip (looped "
        "to fill the item) by the share of an item it fills." % testsets.ITEM_MIN_SECONDS,
        "",
    ] + _set_summary(items, result["levels"]) + [
        "",
        "## Systems",
        "",
        "- `noisy`: the unprocessed input.",
        "- `speexdsp-15`, `speexdsp-30`: SpeexDSP preprocessor, denoise on, suppression -15 / -30 dB "
        "(16-bit samples).",
        "- `webrtc-high`, `webrtc-veryhigh`: WebRTC audio processing 0.3, noise suppressor only, "
        "levels High / VeryHigh (float interface).",
        "- `rnnoise`: RNNoise, WebAssembly build from npm (`@jitsi/rnnoise-wasm` 0.2.1, its 0.2 "
        "model), 480-sample frames at 48 kHz; the 16 kHz set is resampled to 48 kHz and back.",
        "- `sonel`: the public C interface, float path, one NC session per item, every model listed above registered (a session runs the one for its rate).",
    ] + ["- `%s`: as `sonel`, with `%s` registered instead." % (system, variant["path"])
         for system, variant in sorted(model.get("variants", {}).items())] + [
        "",
        "All run 10 ms frames with fresh state per item. Each output is moved earlier by the system's "
        "constant delay (median lag of the cross-correlation peak over the clean-only items, to "
        "1/8 sample) before scoring:",
        "",
        "| system | " + " | ".join("delay at %d kHz" % (r // 1000) for r in rates) + " |",
        "|---" * (len(rates) + 1) + "|",
    ]
    for system in systems[1:]:
        lines.append("| %s | %s |" % (system_label(system, model), " | ".join(
            "%.2f ms (%.2f samples)" % (1000.0 * delay / r, delay)
            for r, delay in ((r, result["delays"][str(r)][system]) for r in rates))))
    lines += [
        "",
        "WebRTC at 48 kHz splits the signal into three bands with a filter bank whose phase is not "
        "linear, so its lag differs by a sample or two between items and no constant delay aligns "
        "every frequency: that lowers its SI-SDR-based scores at 48 kHz (compare its clean-only "
        "SI-SDR at the two rates), while STOI and ESTOI, which compare envelopes, are unaffected.",
        "",
        "Means with 95 %% confidence intervals (Student's t over items; where both noise groups are "
        "pooled, the two mixtures of a pair count as two items, so those intervals are a little "
        "narrow). %s" % machine,
        "",
    ]
    for rate in rates:
        lines += ["## %d kHz" % (rate // 1000), ""]
        for metric, heading, unit in MIX_METRICS:
            lines += ["### %s%s, mixtures, by input SNR" % (heading, " (%s)" % unit if unit else ""), ""]
            lines += _mixture_table(summary, rate, systems, metric, unit, model) + [""]
        lines += ["### Noise only and clean only", ""]
        lines += _single_set_table(summary, rate, systems, model) + [""]
        for metric, heading, unit in GROUP_METRICS:
            for group in testsets.NOISE_GROUPS:
                lines += ["### %s%s, mixtures with %s, by input SNR"
                          % (heading, " (%s)" % unit if unit else "", GROUP_NAMES[group]), ""]
                lines += _mixture_table(summary, rate, systems, metric, unit, model, group) + [""]
        lines += ["### Noise only by noise group: residual noise, dB below input", ""]
        lines += _noise_only_by_group_table(summary, rate, systems, model) + [""]
    lines += ["## Plots", ""]
    lines += ["![ΔSI-SDR against input SNR](%s)" % PLOTS["delta_si_sdr"], "",
              "![ESTOI against input SNR](%s)" % PLOTS["estoi"], "",
              "![ΔSI-SDR against input SNR by noise group](%s)" % PLOTS["delta_si_sdr_by_group"], "",
              "![Spectrograms of %s at %d kHz: clean, noisy, Sonel](%s)"
              % (evaluate.EXAMPLE_ID, SPECTROGRAM_RATE_HZ // 1000, PLOTS["spectrogram"]), ""]
    return "\n".join(lines)


def plots(result, eval_dir, docs_dir, model):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    summary = summarise(result["rows"])
    rates = sorted({row["rate_hz"] for row in result["rows"]}, reverse=True)
    systems = present_systems(result)
    os.makedirs(os.path.join(docs_dir, "quality"), exist_ok=True)

    def against_snr(axis, rate, metric, label, group=None):
        snrs = _snrs(summary, rate)
        for system in systems:
            if metric.startswith("delta_") and system == evaluate.NOISY:
                continue
            stats = [mean_ci(summary[(rate, system, "mix", s, group)][metric]) for s in snrs]
            style = {"color": "black", "linestyle": "--"} if system == evaluate.NOISY else {}
            axis.errorbar(snrs, [m for m, _ in stats], yerr=[np.nan_to_num(h) for _, h in stats],
                          marker="o", capsize=3, label=system_label(system, model), **style)
        axis.set_title("%d kHz%s" % (rate // 1000, ", " + GROUP_NAMES[group] if group else ""))
        axis.set_xlabel("input SNR (dB)")
        axis.set_ylabel(label)
        axis.grid(alpha=0.3)

    for metric, label in (("delta_si_sdr", "ΔSI-SDR (dB)"), ("estoi", "ESTOI")):
        figure, axes = plt.subplots(1, len(rates), figsize=(5.5 * len(rates), 4.2), squeeze=False)
        for axis, rate in zip(axes[0], rates):
            against_snr(axis, rate, metric, label)
        axes[0][-1].legend(fontsize=7)
        figure.tight_layout()
        figure.savefig(os.path.join(docs_dir, PLOTS[metric]), dpi=110)
        plt.close(figure)

    # One row per noise group on a shared scale, so the gap between seen and unseen noise reads
    # straight off the figure.
    groups = testsets.NOISE_GROUPS
    figure, axes = plt.subplots(len(groups), len(rates), figsize=(5.5 * len(rates), 4.2 * len(groups)),
                                squeeze=False, sharey=True)
    for row, group in zip(axes, groups):
        for axis, rate in zip(row, rates):
            against_snr(axis, rate, "delta_si_sdr", "ΔSI-SDR (dB)", group)
    axes[0][-1].legend(fontsize=7)
    figure.tight_layout()
    figure.savefig(os.path.join(docs_dir, PLOTS["delta_si_sdr_by_group"]), dpi=110)
    plt.close(figure)

    example = os.path.join(eval_dir, "examples", str(SPECTROGRAM_RATE_HZ))
    panels = [("clean", "clean speech"), (evaluate.NOISY, "noisy input (%s)" % evaluate.EXAMPLE_ID),
              (evaluate.SONEL, system_label(evaluate.SONEL, model))]
    figure, axes = plt.subplots(len(panels), 1, figsize=(9, 2.6 * len(panels)), sharex=True)
    colours = plt.get_cmap("magma").copy()
    colours.set_bad(colours(0.0))  # digital silence (-inf dB) as the floor colour, not blank
    for axis, (name, title) in zip(axes, panels):
        signal = np.fromfile(os.path.join(example, name + ".f32"), dtype="<f4")
        with np.errstate(divide="ignore"):  # digital silence in a suppressor's output
            axis.specgram(signal, NFFT=1024, Fs=SPECTROGRAM_RATE_HZ, noverlap=768, cmap=colours,
                          vmin=-150, vmax=-40)
        axis.set_title(title, fontsize=9)
        axis.set_ylabel("Hz")
    axes[-1].set_xlabel("s")
    figure.tight_layout()
    figure.savefig(os.path.join(docs_dir, PLOTS["spectrogram"]), dpi=75)
    plt.close(figure)
