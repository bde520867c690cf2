#!/bin/sh
# Runs a command of RabbitMQ for a broker that is separate from the service of the package: sh rabbitmq.sh COMMAND
# ../fleet.md describes how to start the broker. Everything listens on loopback, and all files are in
# OXEVENT_BROKER_DIRECTORY, an absolute path. OXEVENT_BROKER_PORT is the port for clients, OXEVENT_BROKER_NODE_PORT the
# one for rabbitmqctl, and OXEVENT_BROKER_EPMD_PORT that of Erlang's port mapper.
set -eu

export HOME="$OXEVENT_BROKER_DIRECTORY"  # For the cookie, with which rabbitmqctl authenticates itself.
export ERL_EPMD_ADDRESS=127.0.0.1 ERL_EPMD_PORT="$OXEVENT_BROKER_EPMD_PORT"
export RABBITMQ_NODENAME=oxevent@localhost
export RABBITMQ_NODE_IP_ADDRESS=127.0.0.1 RABBITMQ_NODE_PORT="$OXEVENT_BROKER_PORT"
export RABBITMQ_DIST_PORT="$OXEVENT_BROKER_NODE_PORT"
export RABBITMQ_SERVER_ADDITIONAL_ERL_ARGS='-kernel inet_dist_use_interface {127,0,0,1}'
export RABBITMQ_MNESIA_BASE="$HOME/data" RABBITMQ_LOG_BASE="$HOME" RABBITMQ_LOGS="$HOME/broker.log"
# None of these files needs to exist. Without these names, RabbitMQ would use the files in /etc/rabbitmq.
export RABBITMQ_CONF_ENV_FILE="$HOME/rabbitmq-env.conf" RABBITMQ_CONFIG_FILE="$HOME/rabbitmq"
export RABBITMQ_ADVANCED_CONFIG_FILE="$HOME/advanced" RABBITMQ_ENABLED_PLUGINS_FILE="$HOME/enabled_plugins"
export RABBITMQ_GENERATED_CONFIG_DIR="$HOME/generated"

# The commands of the same names in /usr/sbin would switch to the user rabbitmq and to /var/lib/rabbitmq.
PATH=/usr/lib/rabbitmq/bin:$PATH
exec "$@"
