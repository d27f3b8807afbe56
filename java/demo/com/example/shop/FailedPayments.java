package com.example.shop;

import static com.korvane.twutils.nativeagent.TWNativeAgentProfiling.enableCaptureVariableinException;

import com.korvane.twutils.nativeagent.ExceptionRecord;
import com.korvane.twutils.nativeagent.TWNativeAgentProfiling;
import java.util.concurrent.atomic.AtomicReference;

/**
 * A customer's payment is refused, deep in the shop. The agent captures the exception where it is
 * thrown, with everything that is known there.
 */
final class FailedPayments {
  private static final int RECORDS_A_MINUTE = 3;
  private static final int FRAMES = 4;

  private FailedPayments() {}

  /**
   * Lets one payment fail and gives the record of it, decoded.
   *
   * @throws IllegalStateException when the agent delivers none
   */
  static ExceptionRecord captureOne() throws InterruptedException {
    AtomicReference<String> delivered = new AtomicReference<>();
    TWNativeAgentProfiling.setExceptionSink(
        (record, exception) -> {
          if (exception instanceof PaymentRefused) {
            delivered.set(record);
          }
        });
    enable(true);
    try {
      Thread worker = new Thread(FailedPayments::serve, "http-worker-9");
      worker.start();
      worker.join();
    } finally {
      enable(false);
      TWNativeAgentProfiling.setExceptionSink(null);
    }
    if (delivered.get() == null) {
      throw new IllegalStateException("the refused payment was not captured");
    }
    return ExceptionRecord.parse(delivered.get());
  }

  private static void enable(boolean enable) {
    int taken =
        enableCaptureVariableinException(
            enable, true, true, true, true, RECORDS_A_MINUTE, FRAMES, "[java.io.EOFException]");
    if (taken != 1) {
      throw new IllegalStateException("exception capture is not among the agent's features");
    }
  }

  private static void serve() {
    RequestContext.CURRENT.set(new RequestContext(4711, "/checkout"));
    Order order = new Order(5, new int[] {0, 2, 1}, 12_990);
    try {
      new Checkout("EUR").pay(order, new Card("A. Customer", "4000 **** **** 0002", 2031));
    } catch (PaymentRefused e) {
      System.out.println("  " + Thread.currentThread().getName() + ": " + e.getMessage());
    } finally {
      RequestContext.CURRENT.remove();
    }
  }

  /** What the thread is working on. */
  private static final class RequestContext {
    static final ThreadLocal<RequestContext> CURRENT = new ThreadLocal<>();

    final int request;
    final String path;

    RequestContext(int request, String path) {
      this.request = request;
      this.path = path;
    }
  }

  private static final class Card {
    final String holder;
    final String number;
    final int expires;

    Card(String holder, String number, int expires) {
      this.holder = holder;
      this.number = number;
      this.expires = expires;
    }
  }

  private static final class Checkout {
    private final PaymentGateway gateway = new PaymentGateway("payments.example.com");
    private final String currency;

    Checkout(String currency) {
      this.currency = currency;
    }

    String pay(Order order, Card card) {
      double amount = order.cents / 100.0;
      String reference = "order of customer " + order.customer;
      String receipt = gateway.charge(card, amount, currency, reference);
      return reference + ": " + receipt;
    }
  }

  private static final class PaymentGateway {
    private static final double LIMIT = 100;

    private final String host;
    private int attempts;

    PaymentGateway(String host) {
      this.host = host;
    }

    String charge(Card card, double amount, String currency, String reference) {
      attempts++;
      boolean withinLimit = amount <= LIMIT;
      if (!withinLimit) {
        throw new PaymentRefused(host + " refuses " + amount + " " + currency);
      }
      return card.number + " paid for " + reference;
    }
  }

  private static final class PaymentRefused extends RuntimeException {
    private static final long serialVersionUID = 1;

    PaymentRefused(String message) {
      super(message);
    }
  }
}
