#!/usr/bin/python3
"""Trains the ternary model on the King James Bible and exports it for the converter.

  /usr/bin/python3 tools/train/train.py --minutes 55 --work /work/train-scratch/full

With --minutes the run measures its first steps and the first validation,
then fixes the number of steps that fits the budget and says so; the
learning rate warms up linearly, then follows a cosine down to the last step.
Give that number back as --steps (with the same --seed) to repeat a run
exactly.
"""
import argparse
import math
import os
import sys
import time

os.environ.setdefault("OMP_WAIT_POLICY", "PASSIVE")  # spinning OpenMP workers stall this machine's 2 cores

import torch  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bpe  # noqa: E402
import dataset  # noqa: E402
from export import export_checkpoint  # noqa: E402
from model import ModelShape, TernaryLM  # noqa: E402

CALIBRATION_STEPS = 20


def parse_arguments(argv):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    length = parser.add_mutually_exclusive_group(required=True)
    length.add_argument("--minutes", type=float, help="time budget of the whole run, export included")
    length.add_argument("--steps", type=int, help="exact number of optimizer steps")
    parser.add_argument("--work", required=True, help="scratch directory for the checkpoint and the export")
    parser.add_argument("--export", help="checkpoint directory to write (default: WORK/export)")
    parser.add_argument("--seed", type=int, default=1234)
    parser.add_argument("--batch", type=int, default=16, help="windows per step")
    parser.add_argument("--context", type=int, default=256, help="tokens per window, begin-of-text included")
    parser.add_argument("--lr", type=float, default=5e-3, help="peak learning rate")
    parser.add_argument("--final-lr-ratio", type=float, default=0.05, help="last learning rate / peak")
    parser.add_argument("--warmup", type=int, default=40, help="warm-up steps")
    parser.add_argument("--weight-decay", type=float, default=0.05, help="on the projection matrices only")
    parser.add_argument("--eval-every", type=int, default=100)
    parser.add_argument("--log-every", type=int, default=10)
    parser.add_argument("--threads", type=int, default=2)
    args = parser.parse_args(argv)
    if args.minutes and args.warmup < CALIBRATION_STEPS:
        parser.error(f"--warmup must be at least {CALIBRATION_STEPS}: the budget is measured inside the warm-up")
    return args


def learning_rate(step, total, args):
    """Linear warm-up over args.warmup steps, then a cosine to final_lr_ratio at the last step."""
    if step < args.warmup:
        return args.lr * (step + 1) / args.warmup
    progress = min(1.0, (step - args.warmup) / max(1, total - 1 - args.warmup))
    floor = args.final_lr_ratio
    return args.lr * (floor + (1.0 - floor) * 0.5 * (1.0 + math.cos(math.pi * progress)))


def make_optimizer(model, args):
    """AdamW; weight decay on the projection matrices, none on the embedding and the norms."""
    named = list(model.named_parameters())
    decays = lambda name, p: p.dim() == 2 and "embedding" not in name  # noqa: E731
    groups = [{"params": [p for n, p in named if decays(n, p)], "weight_decay": args.weight_decay},
              {"params": [p for n, p in named if not decays(n, p)], "weight_decay": 0.0}]
    return torch.optim.AdamW(groups, lr=args.lr, betas=(0.9, 0.95), eps=1e-8)


class Batches:
    """Random training windows, drawn from a generator of their own."""

    def __init__(self, data, args):
        self.stream = data.train
        self.length = args.context
        self.starts = self.stream.window_starts(self.length)
        self.batch = args.batch
        self.begin_of_text = data.tokenizer.added[bpe.BEGIN_OF_TEXT]
        self.generator = torch.Generator().manual_seed(args.seed + 1)

    def next(self):
        picks = torch.randint(len(self.starts), (self.batch,), generator=self.generator).numpy()
        inputs, targets = dataset.window_batch(self.stream, self.starts[picks], self.length, self.begin_of_text)
        return torch.from_numpy(inputs), torch.from_numpy(targets)


def validation_loss(model, data, args):
    """Mean token loss over the validation part, cut into windows that do not overlap."""
    starts = data.validation.tiling_starts(args.context)
    begin_of_text = data.tokenizer.added[bpe.BEGIN_OF_TEXT]
    total, count = 0.0, 0
    model.eval()
    with torch.no_grad():
        for first in range(0, len(starts), args.batch):
            inputs, targets = dataset.window_batch(data.validation, starts[first:first + args.batch], args.context,
                                                   begin_of_text)
            loss = model.loss(torch.from_numpy(inputs), torch.from_numpy(targets))
            total += loss.item() * targets.size
            count += targets.size
    model.train()
    return total / count


class Log:
    def __init__(self, start):
        self.start = start

    def say(self, text):
        print(f"[{time.time() - self.start:7.1f}s] {text}", flush=True)


def steps_for_budget(args, elapsed, step_seconds, eval_seconds, steps_done):
    """Steps that fit what is left of the budget, evaluations and export included."""
    remaining = args.minutes * 60.0 - elapsed - eval_seconds - 10.0
    per_step = step_seconds + eval_seconds / args.eval_every
    return steps_done + max(1, int(remaining / per_step))


def save_checkpoint(model, args):
    os.makedirs(args.work, exist_ok=True)
    torch.save({"shape": model.shape, "state": model.state_dict(), "arguments": vars(args)},
               os.path.join(args.work, "checkpoint.pt"))


def evaluate(model, data, args, step, tokens, log):
    """Logs the validation loss, saves the checkpoint; returns the seconds this took."""
    started = time.time()
    loss = validation_loss(model, data, args)
    log.say(f"step {step:5d}  tokens {tokens:9d}  validation loss {loss:.4f}  perplexity {math.exp(loss):8.2f}")
    save_checkpoint(model, args)
    return time.time() - started


def train_step(model, optimizer, batches, lr):
    for group in optimizer.param_groups:
        group["lr"] = lr
    inputs, targets = batches.next()
    loss = model.loss(inputs, targets)
    optimizer.zero_grad(set_to_none=True)
    loss.backward()
    torch.nn.utils.clip_grad_norm_(model.parameters(), 1.0)
    optimizer.step()
    return loss.item()


def train(model, data, args, log):
    """Runs args.steps steps, or as many as the budget allows after the calibration steps
    (all inside the warm-up, where the schedule does not depend on the total)."""
    optimizer = make_optimizer(model, args)
    batches = Batches(data, args)
    eval_seconds = evaluate(model, data, args, 0, 0, log)
    total = args.steps or CALIBRATION_STEPS
    tokens_per_step = args.batch * args.context
    step, interval = 0, Interval()
    while step < total:
        if step == 2:
            timing_start = time.time()
        interval.add(train_step(model, optimizer, batches, learning_rate(step, total, args)))
        step += 1
        if args.minutes and step == CALIBRATION_STEPS:
            step_seconds = (time.time() - timing_start) / (CALIBRATION_STEPS - 2)
            total = steps_for_budget(args, time.time() - log.start, step_seconds, eval_seconds, step)
            log.say(f"{step_seconds:.2f} s a step, validation {eval_seconds:.1f} s: training for {total} steps "
                    f"(repeat with --steps {total} --seed {args.seed})")
        if step % args.log_every == 0:
            log.say(f"step {step:5d}  tokens {step * tokens_per_step:9d}  train loss {interval.mean_loss():.4f}  "
                    f"lr {learning_rate(step - 1, total, args):.2e}  {interval.rate(tokens_per_step):6.0f} tokens/s")
            interval = Interval()
        if step % args.eval_every == 0 or step == total:
            evaluate(model, data, args, step, step * tokens_per_step, log)
            interval.restart_clock()


class Interval:
    """Training losses and time since the last log line, validation time left out."""

    def __init__(self):
        self.losses, self.seconds, self.clock = [], 0.0, time.time()

    def add(self, loss):
        self.losses.append(loss)
        now = time.time()
        self.seconds += now - self.clock
        self.clock = now

    def restart_clock(self):
        self.clock = time.time()

    def mean_loss(self):
        return sum(self.losses) / len(self.losses)

    def rate(self, tokens_per_step):
        return len(self.losses) * tokens_per_step / self.seconds


def main(argv):
    args = parse_arguments(argv)
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    log = Log(time.time())
    data = dataset.prepare()
    log.say(f"corpus: {len(data.train.tokens)} training tokens, {len(data.validation.tokens)} validation tokens, "
            f"vocabulary {data.tokenizer.vocab_size}")
    shape = ModelShape(vocab_size=data.tokenizer.vocab_size, context=args.context)
    model = TernaryLM(shape)
    log.say(f"model: {model.parameter_count()} parameters, {shape}")
    train(model, data, args, log)
    export_dir = args.export or os.path.join(args.work, "export")
    export_checkpoint(model, data.tokenizer, export_dir)
    log.say(f"exported to {export_dir}")


if __name__ == "__main__":
    main(sys.argv[1:])
