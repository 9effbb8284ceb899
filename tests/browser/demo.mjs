// `quillet demo` in a child process: its address, and every line it prints.
import { spawn } from 'node:child_process';

const running = new Set();

export class Demo {
  // Ends every demo a failed test left behind, so that the test run itself can end.
  static async killAll() {
    for (const demo of running) demo.child.kill('SIGKILL');
    await Promise.all([...running].map((demo) => demo.exited));
  }

  static async start(args) {
    const demo = new Demo(args);
    const open = await demo.waitFor(/^Open (http:\/\/\S+) in a browser/);
    demo.url = open[1];
    return demo;
  }

  constructor(args) {
    this.lines = [];
    this.waiters = [];
    this.child = spawn(process.env.QUILLET_CLI, ['demo', '--port', '0', ...args],
      { stdio: ['ignore', 'pipe', 'pipe'] });
    let buffered = '';
    this.child.stdout.on('data', (chunk) => {
      buffered += chunk;
      const parts = buffered.split('\n');
      buffered = parts.pop();
      for (const line of parts) this.lines.push(line);
      this.waiters = this.waiters.filter((waiter) => !waiter());
    });
    this.stderr = '';
    this.child.stderr.on('data', (chunk) => { this.stderr += chunk; });
    running.add(this);
    this.exited = new Promise((resolve) => this.child.on('exit', (code, signal) => {
      running.delete(this);
      resolve({ code, signal });
    }));
  }

  // The first line (from `from` on) that matches, as its match; rejects after `ms`.
  waitFor(pattern, { from = 0, ms = 20000 } = {}) {
    return new Promise((resolve, reject) => {
      const check = () => {
        for (const line of this.lines.slice(from)) {
          const match = pattern.exec(line);
          if (match) { resolve(match); return true; }
        }
        return false;
      };
      if (check()) return;
      const timer = setTimeout(() => reject(new Error(
        `no line matched ${pattern} within ${ms} ms:\n${this.lines.join('\n')}\n${this.stderr}`)), ms);
      this.waiters.push(() => { if (!check()) return false; clearTimeout(timer); return true; });
    });
  }

  count(pattern) { return this.lines.filter((line) => pattern.test(line)).length; }

  // Ctrl-C; a demo that has not ended after ten seconds is killed and reported as hung.
  async stop() {
    this.child.kill('SIGINT');
    const timer = setTimeout(() => this.child.kill('SIGKILL'), 10000);
    const ended = await this.exited;
    clearTimeout(timer);
    if (ended.signal === 'SIGKILL') {
      throw new Error(`quillet demo did not stop on SIGINT:\n${this.lines.join('\n')}\n${this.stderr}`);
    }
    return ended;
  }
}
